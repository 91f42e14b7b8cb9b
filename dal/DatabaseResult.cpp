#include <dal/DatabaseResult.h>

namespace oryx {

void DatabaseResult::setErrorMessage(const char* msg)
{
    if (msg != nullptr) {
        m_message = msg;
    }
}

} // namespace oryx
