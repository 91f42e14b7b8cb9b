#include "sip/Sipp.h"

#include "sip/Phone.h"
#include "sip/Program.h"

std::string playScenario(const std::string& name, int port, const std::vector<std::string>& arguments, int seconds)
{
    std::vector<std::string> all{"127.0.0.1:" + std::to_string(port),
                                 "-sf",
                                 ORYX_SCENARIOS "/" + name + ".xml",
                                 "-i",
                                 "127.0.0.1",
                                 "-p",
                                 std::to_string(phone::freePort()),
                                 "-nostdin",
                                 "-timeout",
                                 std::to_string(seconds) + "s"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    Program sipp("/usr/bin/sipp", all);
    return sipp.wait(seconds + seconds / 2) == 0 ? "" : sipp.soFar();
}
