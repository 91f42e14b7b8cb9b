#include <common/Database.h>

#include <cstdlib>

namespace oryx::sip {

SessionOptions sessionOptions()
{
    constexpr std::chrono::milliseconds kDeadline{600}; // a request asks up to three times
    SessionOptions options = SessionOptions::fromEnvironment();
    if (options.deadline.count() == 0) {
        options.deadline = kDeadline;
    }
    if (std::getenv("ORYX_STATEMENTS") == nullptr) {
        options.statements = SessionOptions::Statements::bound;
    }
    return options;
}

} // namespace oryx::sip
