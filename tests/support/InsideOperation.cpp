#include "support/InsideOperation.h"

#include <dal/LocationService.h>

#include <dlfcn.h>
#include <execinfo.h>
#include <link.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <utility>

namespace {

/// Where the library's code is.
struct Code {
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;

    bool holds(const void* address) const
    {
        const auto number = reinterpret_cast<std::uintptr_t>(address);
        return number >= begin && number < end;
    }
};

Code findLibrary()
{
    Code code;
    dl_iterate_phdr(
        [](dl_phdr_info* object, std::size_t /*size*/, void* found) {
            if (std::string_view(object->dlpi_name).find("liboryx-dal.so") == std::string_view::npos) {
                return 0;
            }
            for (int i = 0; i < object->dlpi_phnum; ++i) {
                const ElfW(Phdr)& header = object->dlpi_phdr[i];
                if (header.p_type == PT_LOAD && (header.p_flags & PF_X) != 0) {
                    const std::uintptr_t begin = object->dlpi_addr + header.p_vaddr;
                    *static_cast<Code*>(found) = {begin, begin + header.p_memsz};
                }
            }
            return 1;
        },
        &code);
    return code;
}

bool isOfAnOperation(void* address)
{
    static constexpr std::array<std::string_view, 5> kClasses{
        "15LocationService", "15PresenceService", "CommandExecutor", "18DatabaseConnection", "14ChangeListener"};
    Dl_info found{};
    if (dladdr(address, &found) == 0 || found.dli_sname == nullptr) {
        return false;
    }
    const std::string_view name = found.dli_sname;
    return std::any_of(kClasses.begin(), kClasses.end(),
                       [&](std::string_view part) { return name.find(part) != std::string_view::npos; });
}

} // namespace

bool insideOperation()
{
    static const Code library = findLibrary();
    constexpr int kDeepest = 64;
    std::array<void*, kDeepest> callers{};
    int depth = backtrace(callers.data(), kDeepest);
    while (depth > 0 && !library.holds(callers.at(static_cast<std::size_t>(depth - 1)))) {
        --depth;
    }
    if (depth == 0) {
        return false;
    }
    thread_local std::pair<void*, bool> last; // mostly it is the same call as before, and a symbol takes long to find
    void* const outermost = callers.at(static_cast<std::size_t>(depth - 1));
    if (outermost != last.first) {
        last = {outermost, isOfAnOperation(outermost)};
    }
    return last.second;
}
