#include "Jobs.h"

#include <algorithm>
#include <cstdlib>
#include <stdexcept>

namespace peers {

namespace {

// As data.sql has it.
constexpr int kWatchersPerPresentity = 10;

int dialogsOf(int size)
{
    return std::max(size / 10, 1000);
}

/// Spreads the addresses over so many others.
std::string oneOf(int count, int n)
{
    return std::to_string((n - 1) % count + 1);
}

oryx::ContactRecord contact(const std::string& handle, const std::string& host)
{
    const std::string address = "sip:" + handle + "@" + host + ":5060;transport=udp";
    oryx::ContactRecord record;
    record.setAddress(address.c_str());
    record.setQvalue("0.5");
    record.setExpires(2000000000);
    record.setCapabilities("INVITE, ACK, BYE, CANCEL, OPTIONS");
    record.setContactHeader(("<" + address + ">;q=0.5;expires=3600").c_str());
    record.setCallId(("8f2c55a09c1c4fb4b1f8e9f1ad2f6b1e@" + host).c_str());
    record.setCseq(2);
    return record;
}

oryx::PresenceRecord dialog(const std::string& id, const std::string& handle)
{
    return {id.c_str(),
            nullptr,
            "<sip:watcher@oryx.example>;tag=8a94f1",
            ("<sip:" + handle + "@oryx.example>").c_str(),
            "8f2c55a09c1c4fb4b1f8e9f1ad2f6b1e@192.0.2.1",
            1,
            "presence",
            "<sip:watcher@192.0.2.1:5060>",
            "",
            1,
            ("sip:" + handle + "@oryx.example").c_str(),
            "presence#"};
}

void require(bool holds, const char* what)
{
    if (!holds) {
        throw std::runtime_error(what);
    }
}

std::string environment(const char* name)
{
    const char* const value = std::getenv(name);
    return value != nullptr ? value : "";
}

} // namespace

Input::Input(int number, int size, int series)
    : n(number),
      handle("user" + std::to_string(number)),
      presentityKey("sip:user" + oneOf(dialogsOf(size) / kWatchersPerPresentity, n) + "@oryx.example#presence"),
      stored{contact(handle, "192.0.2.1")},
      added{contact(handle, "198.51.100." + std::to_string(series + 1))},
      dialog(peers::dialog("incoming#added-" + std::to_string(series) + "-" + std::to_string(number), handle)),
      storedDialog("incoming#" + oneOf(dialogsOf(size), n))
{
}

const std::vector<Job>& allJobs()
{
    // What only looks comes first, so that it does not meet what changes leave behind. A refusal is the last, for it
    // can cost a connection all that it is used to.
    static const std::vector<Job> kJobs{
        {{"public address key",
          [](Contender& contender, Input& input) {
              require(contender.key(input.handle, input.domain) == input.n, "another key");
          }},
         {}},
        {{"contacts by address",
          [](Contender& contender, Input& input) {
              require(!contender.contactsByAddress(input.handle, input.domain).contacts.empty(), "no contacts");
          }},
         {}},
        {{"contacts by key",
          [](Contender& contender, Input& input) {
              require(!contender.contactsByKey(input.n).contacts.empty(), "no contacts");
          }},
         {}},
        {{"contacts by set",
          [](Contender& contender, Input& input) {
              require(!contender.contactsBySet(input.n).contacts.empty(), "no contacts");
          }},
         {}},
        {{"dialog found",
          [](Contender& contender, Input& input) {
              require(contender.findDialog(input.storedDialog).subcseq() > 0, "no dialog");
          }},
         {}},
        {{"watchers",
          [](Contender& contender, Input& input) {
              require(contender.watchers(input.presentityKey).size() == kWatchersPerPresentity, "not all watchers");
          }},
         {}},
        {{"access rules",
          [](Contender& contender, Input& input) {
              require(contender.accessRules(input.handle, input.domain, kApplication).size() == 2, "no default rules");
          }},
         {}},
        {{"refresh", [](Contender& contender, Input& input) { contender.refreshContact(input.n, input.stored); }}, {}},
        {{"register",
          [](Contender& contender, Input& input) {
              require(contender.registerContact(input.n, input.added), "a new contact was refused");
          }},
         {{"unregister",
           [](Contender& contender, Input& input) { contender.unregisterContact(input.n, input.added); }}}},
        {{"dialog stored", [](Contender& contender, Input& input) { contender.storeDialog(input.dialog); }},
         {{"dialog removed",
           [](Contender& contender, Input& input) { contender.removeDialog(input.dialog.subscriptionid()); }}}},
        {{"extension reserved",
          [](Contender& contender, Input& /*input*/) { contender.releaseExtension(contender.reserveExtension()); }},
         {}},
        {{"refused registration",
          [](Contender& contender, Input& input) {
              require(!contender.registerContact(input.n, input.stored), "a contact was stored twice");
          }},
         {}},
    };
    return kJobs;
}

Database databaseNamed(const std::string& name)
{
    return {environment("PGHOST"), name, environment("PGUSER")};
}

} // namespace peers
