#pragma once

#include <dal/ChangeListener.h>
#include <dal/internal/Frame.h>
#include <dal/internal/NotifierTables.h>
#include <dal/internal/StopSignal.h>

#include <bitset>
#include <chrono>
#include <string>
#include <vector>

namespace oryx {

/// The tables that were announced, by their place in kAnnouncedTables.
using TableSet = std::bitset<kAnnouncedTables.size()>;

/// A connection that is subscribed to the tables that the servers follow, and to a channel of its own, on which it
/// hears whether it hears. Everything it waits for ends with a request to stop, as with a failure.
class ListeningConnection {
public:
    ListeningConnection(const ChangeListenerOptions& options, const StopSignal& stop);

    /// Connects and subscribes, and has itself notified; false when it does not listen.
    bool open(const std::string& uri, const std::string& user, const std::string& password);
    /// Waits until a table is announced; false when nothing more will be heard.
    bool awaitAnnouncement();
    /// The tables announced since the last call.
    TableSet takeAnnounced();
    /// `getUpdatedPrimaryKeys`, on this connection.
    DatabaseResult changesSince(const std::string& table, const std::string& since, std::vector<DatabaseUpdate>& rows);
    /// The reason of the last failure.
    const std::string& reason() const { return m_frame.errorText; }

private:
    bool subscribe();
    bool hearsOthers(const std::string& uri, const std::string& user, const std::string& password);
    bool hearsItself();
    bool notify(Frame& from);
    bool awaitOwnNotification();
    bool takeNotifications();
    void hear(const char* channel, const char* payload);

    std::chrono::milliseconds m_idleCheck;
    std::chrono::milliseconds m_answerTime;
    TableSet m_tables; // those that are subscribed to
    const StopSignal& m_stop;
    Frame m_frame{"oryx"};
    TableSet m_announced;
    std::string m_channel;
    int m_sent = 0;      // how often it was notified, which is in the payload
    std::string m_heard; // the last payload
};

} // namespace oryx
