#include "drills/Jobs.h"

#include <dal/Dal.h>
#include <dal/PresenceDal.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <string>
#include <vector>

namespace drill {

namespace {

constexpr const char* kDomain = "oryx.example";

std::vector<oryx::ContactRecord> bindings(const std::string& name, long cseq)
{
    std::vector<oryx::ContactRecord> made(2);
    for (oryx::ContactRecord& contact : made) {
        const std::string address = "sip:" + name + (&contact == made.data() ? "@192.0.2.1" : "@192.0.2.2");
        contact.setAddress(address.c_str());
        contact.setContactHeader(("<" + address + ">").c_str());
        contact.setQvalue("0.7");
        contact.setExpires(std::time(nullptr) + 3600);
        contact.setCallId((name + "@192.0.2.1").c_str());
        contact.setCseq(cseq);
    }
    return made;
}

std::string seenIn(const std::vector<oryx::ContactRecord>& contacts)
{
    if (contacts.empty()) {
        return kAbsent;
    }
    std::string all;
    for (const oryx::ContactRecord& contact : contacts) {
        all += (all.empty() ? "" : ",") + std::to_string(contact.cseq());
    }
    const std::string first = std::to_string(contacts.front().cseq());
    return all == first + "," + first ? first : all + "!";
}

/// The beginning of an error's message, as the journal takes it.
std::string inOneWord(const std::string& message)
{
    std::string word = "error:" + message.substr(0, std::min<std::size_t>(message.find('\n'), 80));
    std::replace(word.begin(), word.end(), ' ', '_');
    return word;
}

} // namespace

Answer Jobs::noted(std::uint64_t number, const oryx::DatabaseResult& result, const std::string& seen)
{
    const Outcome outcome = result.okay() ? Outcome::okay : result.notFound() ? Outcome::none : Outcome::error;
    m_journal->answer(number, outcome, outcome == Outcome::error ? inOneWord(result.getErrorMessage()) : seen);
    return {now(), outcome, seen};
}

Answer Jobs::registerContacts(int address, const std::string& name, long cseq)
{
    std::vector<oryx::ContactRecord> contacts = bindings(name, cseq);
    const std::uint64_t number = m_journal->ask(Kind::enter, "contact/" + name, cseq);
    return noted(number, m_registrar.registerContacts(address, contacts));
}

Answer Jobs::refreshContacts(int address, const std::string& name, long cseq)
{
    std::vector<oryx::ContactRecord> contacts = bindings(name, cseq);
    const std::uint64_t number = m_journal->ask(Kind::refresh, "contact/" + name, cseq);
    return noted(number, m_registrar.updateContacts(address, contacts));
}

Answer Jobs::removeContacts(int address, const std::string& name)
{
    std::vector<oryx::ContactRecord> contacts = bindings(name, 0);
    const std::uint64_t number = m_journal->ask(Kind::remove, "contact/" + name);
    return noted(number, m_registrar.unregisterContacts(address, contacts));
}

Answer Jobs::lookUpContacts(const std::string& name)
{
    std::string ordering;
    bool replaceUri = false;
    std::vector<oryx::ContactRecord> contacts;
    const std::uint64_t number = m_journal->ask(Kind::look, "contact/" + name);
    const oryx::DatabaseResult result =
        m_registrar.lookupContacts(name.c_str(), kDomain, ordering, replaceUri, contacts);
    return noted(number, result, seenIn(contacts));
}

Answer Jobs::storeDialog(const std::string& id, long cseq)
{
    const oryx::PresenceRecord dialog(id.c_str(), "", "<sip:watcher@oryx.example>;tag=1", "<sip:alice@oryx.example>",
                                      id.c_str(), static_cast<int>(cseq), "presence", "<sip:watcher@192.0.2.1>", "", 0,
                                      "sip:alice@oryx.example", "presence#1");
    const std::uint64_t number = m_journal->ask(Kind::enter, "dialog/" + id, cseq);
    return noted(number, m_events.addWatcher(dialog));
}

Answer Jobs::refreshDialog(const std::string& id, long cseq)
{
    const std::uint64_t number = m_journal->ask(Kind::refresh, "dialog/" + id, cseq);
    return noted(number, m_events.updateWatcherContact(id.c_str(), "<sip:watcher@192.0.2.2>", static_cast<int>(cseq)));
}

Answer Jobs::removeDialog(const std::string& id)
{
    const std::uint64_t number = m_journal->ask(Kind::remove, "dialog/" + id);
    return noted(number, m_events.deleteWatcher(id.c_str()));
}

Answer Jobs::readDialog(const std::string& id)
{
    oryx::PresenceRecord dialog;
    const std::uint64_t number = m_journal->ask(Kind::look, "dialog/" + id);
    const oryx::DatabaseResult result = m_events.getWatcher(id.c_str(), dialog);
    return noted(number, result, result.okay() ? std::to_string(dialog.subcseq()) : kAbsent);
}

Answer Jobs::reserve()
{
    std::string extension;
    const std::uint64_t number = m_journal->ask(Kind::reserve, "extension/any");
    const oryx::DatabaseResult result = m_events.reserveRandomlyIdleConfExtAsInUse(extension);
    return noted(number, result, extension.empty() ? kAbsent : extension);
}

Answer Jobs::release(const std::string& extension)
{
    // Not by time(), which may be a tick behind the clock that the reservation was stamped by.
    const auto at = std::chrono::duration_cast<std::chrono::seconds>(now()).count();
    const std::uint64_t number = m_journal->ask(Kind::release, "extension/" + extension);
    return noted(number, m_events.setConfExtState(extension, "IDLE", static_cast<unsigned int>(at)));
}

} // namespace drill
