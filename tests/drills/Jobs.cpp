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

/// An error's SQLSTATE and the beginning of its message.
std::string wordsOf(const oryx::DatabaseResult& result)
{
    const std::string& message = result.getErrorMessage();
    return "error:" + result.getSqlState() + ":" + message.substr(0, std::min<std::size_t>(message.find('\n'), 80));
}

/// Whether all that happened between two looks was that no connection could be made.
bool onlyFailedToConnect(const oryx::SessionStatistics& before, const oryx::SessionStatistics& after)
{
    return after.failures > before.failures && after.connects == before.connects && after.losses == before.losses &&
           after.refusals == before.refusals && after.late == before.late;
}

} // namespace

std::uint64_t Jobs::ask(Kind kind, const std::string& key, long value)
{
    m_before = {m_registrar.getStatistics(), m_events.getStatistics()};
    return m_journal->ask(kind, key, value);
}

bool Jobs::mayHaveArrived() const
{
    return !onlyFailedToConnect(m_before[0], m_registrar.getStatistics()) &&
           !onlyFailedToConnect(m_before[1], m_events.getStatistics());
}

Answer Jobs::noted(std::uint64_t number, const oryx::DatabaseResult& result, const std::string& seen)
{
    Outcome outcome = mayHaveArrived() ? Outcome::error : Outcome::unsent;
    if (result.okay()) {
        outcome = Outcome::okay;
    } else if (result.notFound() && result.getErrorMessage().empty()) { // with a message it stands for a failure
        outcome = Outcome::none;
    }
    m_journal->answer(number, outcome, hasFailed(outcome) ? wordsOf(result) : seen);
    return {now(), outcome, seen};
}

Answer Jobs::registerContacts(int address, const std::string& name, long cseq)
{
    std::vector<oryx::ContactRecord> contacts = bindings(name, cseq);
    const std::uint64_t number = ask(Kind::enter, "contact/" + name, cseq);
    return noted(number, m_registrar.registerContacts(address, contacts));
}

Answer Jobs::refreshContacts(int address, const std::string& name, long cseq)
{
    std::vector<oryx::ContactRecord> contacts = bindings(name, cseq);
    const std::uint64_t number = ask(Kind::refresh, "contact/" + name, cseq);
    return noted(number, m_registrar.updateContacts(address, contacts));
}

Answer Jobs::removeContacts(int address, const std::string& name)
{
    std::vector<oryx::ContactRecord> contacts = bindings(name, 0);
    const std::uint64_t number = ask(Kind::remove, "contact/" + name);
    return noted(number, m_registrar.unregisterContacts(address, contacts));
}

Answer Jobs::lookUpContacts(const std::string& name)
{
    std::string ordering;
    bool replaceUri = false;
    std::vector<oryx::ContactRecord> contacts;
    const std::uint64_t number = ask(Kind::look, "contact/" + name);
    const oryx::DatabaseResult result =
        m_registrar.lookupContacts(name.c_str(), kDomain, ordering, replaceUri, contacts);
    return noted(number, result, seenIn(contacts));
}

Answer Jobs::storeDialog(const std::string& id, long cseq)
{
    const oryx::PresenceRecord dialog(id.c_str(), "", "<sip:watcher@oryx.example>;tag=1", "<sip:alice@oryx.example>",
                                      id.c_str(), static_cast<int>(cseq), "presence", "<sip:watcher@192.0.2.1>", "", 0,
                                      "sip:alice@oryx.example", "presence#1");
    const std::uint64_t number = ask(Kind::enter, "dialog/" + id, cseq);
    return noted(number, m_events.addWatcher(dialog));
}

Answer Jobs::refreshDialog(const std::string& id, long cseq)
{
    const std::uint64_t number = ask(Kind::refresh, "dialog/" + id, cseq);
    return noted(number, m_events.updateWatcherContact(id.c_str(), "<sip:watcher@192.0.2.2>", static_cast<int>(cseq)));
}

Answer Jobs::removeDialog(const std::string& id)
{
    const std::uint64_t number = ask(Kind::remove, "dialog/" + id);
    return noted(number, m_events.deleteWatcher(id.c_str()));
}

Answer Jobs::readDialog(const std::string& id)
{
    oryx::PresenceRecord dialog;
    const std::uint64_t number = ask(Kind::look, "dialog/" + id);
    const oryx::DatabaseResult result = m_events.getWatcher(id.c_str(), dialog);
    return noted(number, result, result.okay() ? std::to_string(dialog.subcseq()) : kAbsent);
}

Answer Jobs::reserve()
{
    std::string extension;
    const std::uint64_t number = ask(Kind::reserve, "extension/any");
    const oryx::DatabaseResult result = m_events.reserveRandomlyIdleConfExtAsInUse(extension);
    return noted(number, result, extension.empty() ? kAbsent : extension);
}

Answer Jobs::readExtension(const std::string& extension)
{
    std::string status;
    unsigned int since = 0;
    const std::uint64_t number = ask(Kind::look, "extension/" + extension);
    const oryx::DatabaseResult result = m_events.getConfExtState(extension, status, since);
    std::replace(status.begin(), status.end(), ' ', '_');
    return noted(number, result, status.empty() ? kAbsent : status);
}

Answer Jobs::release(const std::string& extension)
{
    // Not by time(), which may be a tick behind the clock that the reservation was stamped by.
    const auto at = std::chrono::duration_cast<std::chrono::seconds>(now()).count();
    const std::uint64_t before = m_events.getStatistics().repetitions;
    const std::uint64_t number = ask(Kind::release, "extension/" + extension);
    const oryx::DatabaseResult result = m_events.setConfExtState(extension, "IDLE", static_cast<unsigned int>(at));
    return noted(number, result, m_events.getStatistics().repetitions > before ? kRepeated : kAbsent);
}

} // namespace drill
