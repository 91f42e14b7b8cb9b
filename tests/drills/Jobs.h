#pragma once

#include "drills/Account.h"
#include "drills/Journal.h"

#include <dal/LocationService.h>
#include <dal/PresenceService.h>
#include <dal/SessionStatistics.h>

#include <array>
#include <cstdint>
#include <string>

namespace drill {

/// The requests of registrar and event server, each noted in the journal before it is sent and once it is answered.
///
/// An address of record "c3.7" has two bindings, which are written together with one CSeq: a read that finds one of
/// them, or different ones, says so ("5,6!").
class Jobs {
public:
    Jobs(const Account& account, Journal& journal) : m_account(&account), m_journal(&journal) {}

    /// Whether there is a server does not matter: the next request tries again.
    void connect()
    {
        m_account->connect(m_registrar);
        m_account->connect(m_events);
    }

    /// The answer of each: its outcome and, of reads and reservations, what was seen.
    Answer registerContacts(int address, const std::string& name, long cseq);
    Answer refreshContacts(int address, const std::string& name, long cseq);
    Answer removeContacts(int address, const std::string& name);
    Answer lookUpContacts(const std::string& name);

    Answer storeDialog(const std::string& id, long cseq);
    Answer refreshDialog(const std::string& id, long cseq);
    Answer removeDialog(const std::string& id);
    Answer readDialog(const std::string& id);

    Answer reserve();
    /// Its state, as the journal takes it: "IN_USE".
    Answer readExtension(const std::string& extension);
    Answer release(const std::string& extension);

private:
    std::uint64_t ask(Kind kind, const std::string& key, long value = 0);
    bool mayHaveArrived() const;
    Answer noted(std::uint64_t number, const oryx::DatabaseResult& result, const std::string& seen = kAbsent);

    const Account* m_account;
    Journal* m_journal;
    oryx::LocationService m_registrar;
    oryx::PresenceService m_events;
    std::array<oryx::SessionStatistics, 2> m_before; // of both, when the latest request was made
};

} // namespace drill
