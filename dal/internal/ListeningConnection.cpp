#include <dal/internal/ListeningConnection.h>

#include <dal/internal/BoundSession.h>
#include <dal/presence/ChangeLog.h>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <iterator>
#include <limits>
#include <utility>

namespace oryx {

namespace {

using std::chrono::milliseconds;

/// A time that passes, and that poll(2) can wait for.
milliseconds bounded(milliseconds time)
{
    return std::clamp(time, milliseconds(1), milliseconds(std::numeric_limits<int>::max()));
}

/// A channel that nobody else listens to, by process, time and number.
std::string ownChannel()
{
    static std::atomic<int> made = 0;
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return spliced("oryx_listener_{}_{}_{}", getpid(), std::chrono::nanoseconds(now).count(), ++made);
}

SessionOptions sessionOptions(const ChangeListenerOptions& options)
{
    return {options.session.statements, bounded(options.answerTime)};
}

TableSet tablesOf(const ChangeListenerOptions& options)
{
    TableSet tables;
    tables.set();
    tables.set(kPublications, options.publications);
    tables.set(kAccessRules, options.accessRules);
    tables.set(kParameters, options.parameters);
    return tables;
}

} // namespace

ListeningConnection::ListeningConnection(const ChangeListenerOptions& options, const StopSignal& stop)
    : m_idleCheck(bounded(options.idleCheck)),
      m_answerTime(bounded(options.answerTime)),
      m_tables(tablesOf(options)),
      m_stop(stop),
      m_channel(ownChannel())
{
    m_frame.options = sessionOptions(options);
    m_frame.interruption = stop.descriptor();
}

bool ListeningConnection::open(const std::string& uri, const std::string& user, const std::string& password)
{
    if (!m_frame.connect(uri.c_str(), user.c_str(), password.c_str()) || !subscribe() ||
        !hearsOthers(uri, user, password)) {
        return false;
    }
    m_announced = m_tables; // what was announced before has gone by unheard
    return true;
}

bool ListeningConnection::subscribe()
{
    std::string text;
    for (std::size_t i = 0; i < m_tables.size(); ++i) {
        if (m_tables.test(i)) {
            text += spliced("LISTEN {};", kAnnouncedTables.at(i));
        }
    }
    text += spliced("LISTEN {};", m_channel);
    QueryResult result;
    return m_frame.checkConnect() && m_frame.run(text, result) == Run::okay;
}

/// Asked of another connection: through a pooler that lends sessions by the transaction, what the listener sends itself
/// comes back with the answer, while it has a session, and nothing else comes ever.
bool ListeningConnection::hearsOthers(const std::string& uri, const std::string& user, const std::string& password)
{
    Frame other("oryx");
    other.options = m_frame.options;
    other.interruption = m_frame.interruption;
    if (!other.connect(uri.c_str(), user.c_str(), password.c_str()) || !notify(other)) {
        return m_frame.error(("no second connection to try the first with: " + other.errorText).c_str());
    }
    return awaitOwnNotification();
}

/// A server that is gone without a word is only found out by asking it.
bool ListeningConnection::hearsItself()
{
    return notify(m_frame) && awaitOwnNotification();
}

bool ListeningConnection::notify(Frame& from)
{
    const std::string payload = std::to_string(++m_sent);
    Statement statement = sql("SELECT pg_notify('{}', '{}');", m_channel, payload);
    QueryResult result;
    return from.checkConnect() && from.run(statement, result) == Run::okay;
}

bool ListeningConnection::awaitOwnNotification()
{
    const Deadline deadline(m_answerTime);
    const std::string expected = std::to_string(m_sent);
    while (takeNotifications()) {
        if (m_heard == expected) {
            return true;
        }
        if (!m_frame.connection->awaitInput(deadline)) {
            return m_frame.error("notifications are not heard: a pooler in front must keep a session per client");
        }
    }
    return false;
}

bool ListeningConnection::awaitAnnouncement()
{
    while (takeNotifications()) { // before the wait: some came with an answer
        if (m_announced.any()) {
            return true;
        }
        const bool input = m_frame.connection->awaitInput(Deadline(m_idleCheck));
        if (m_stop.requested() || (!input && !hearsItself())) {
            return false;
        }
    }
    return false;
}

TableSet ListeningConnection::takeAnnounced()
{
    return std::exchange(m_announced, {});
}

bool ListeningConnection::takeNotifications()
{
    return m_frame.connection->takeNotifications([this](const char* channel, const char* payload) {
        hear(channel, payload);
    }) || m_frame.errorConnection();
}

void ListeningConnection::hear(const char* channel, const char* payload)
{
    if (m_channel == channel) {
        m_heard = payload;
        return;
    }
    const auto* const table = std::find(kAnnouncedTables.begin(), kAnnouncedTables.end(), std::string_view(channel));
    if (table != kAnnouncedTables.end()) {
        m_announced.set(static_cast<std::size_t>(std::distance(kAnnouncedTables.begin(), table)));
    }
}

DatabaseResult ListeningConnection::changesSince(const std::string& table, const std::string& since,
                                                 std::vector<DatabaseUpdate>& rows)
{
    return readChangeLog(m_frame, table, since, rows);
}

} // namespace oryx
