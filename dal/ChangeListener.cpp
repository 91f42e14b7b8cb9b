#include <dal/ChangeListener.h>

#include <dal/internal/ConnectionAdvice.h>
#include <dal/internal/ListeningConnection.h>
#include <dal/internal/Memory.h>
#include <dal/internal/StopSignal.h>

#include <util/MaskSecrets.h>

#include <algorithm>
#include <cstdlib>
#include <optional>
#include <utility>

namespace oryx {

namespace {

constexpr std::chrono::milliseconds kShortestPause(100);
constexpr std::chrono::milliseconds kLongestPause(3200);

long long stampOf(const DatabaseUpdate& row)
{
    return std::strtoll(row.timestamp().c_str(), nullptr, 10);
}

/// Sorts rows in the order in which they could be seen; the stamp of the last, or `before` without any.
std::string inOrder(std::vector<DatabaseUpdate>& rows, const std::string& before)
{
    std::sort(rows.begin(), rows.end(),
              [](const DatabaseUpdate& a, const DatabaseUpdate& b) { return stampOf(a) < stampOf(b); });
    return rows.empty() ? before : rows.back().timestamp();
}

/// Says when a connection ends, however it does, that nobody listens.
class NotListening {
public:
    explicit NotListening(std::atomic<bool>& listening) : m_listening(listening) {}
    ~NotListening() { m_listening = false; }
    NotListening(const NotListening&) = delete;
    NotListening& operator=(const NotListening&) = delete;

private:
    std::atomic<bool>& m_listening;
};

DatabaseResult refusedRun(DatabaseResult::status status, const char* why)
{
    DatabaseResult result;
    status == DatabaseResult::QUERY_ERROR ? result.setQueryError() : result.setConnectionError();
    keepReason(why, [&](const char* reason) { result.setErrorMessage(reason); });
    return result;
}

} // namespace

ChangeListener::ChangeListener(std::string uri, std::string user, std::string password, ChangeListenerOptions options)
    : m_uri(std::move(uri)),
      m_user(std::move(user)),
      m_password(std::move(password)),
      m_options(std::move(options)),
      m_position(m_options.position),
      m_stop(std::make_unique<StopSignal>())
{
}

ChangeListener::~ChangeListener() = default;

DatabaseResult ChangeListener::run(const Callback& callback)
{
    if (!callback) {
        return refusedRun(DatabaseResult::QUERY_ERROR, "a listener needs a callback");
    }
    m_stop->adopt();
    if (!m_stop->valid()) {
        return refusedRun(DatabaseResult::CONNECTION_ERROR, "the process has no descriptor left");
    }
    tellWhatIsIgnored(m_uri.c_str(), m_user.c_str());
    m_pause = kShortestPause;
    while (!m_stop->requested()) {
        listen(callback);
        m_stop->await(m_pause);
        m_pause = std::min(2 * m_pause, kLongestPause);
    }
    m_stop->clear();
    return {};
}

void ChangeListener::stop() noexcept
{
    m_stop->request();
}

/// Until the connection is lost, or the run stopped.
void ChangeListener::listen(const Callback& callback)
{
    std::optional<ListeningConnection> connection;
    ChangeSet changes;
    const NotListening lost(m_listening);
    while (unlessOutOfMemory([&] { return hear(connection, changes); }, [this] { return tellOutOfMemory(); })) {
        callback(changes); // what it throws is the caller's
        m_position.swap(changes.position);
        m_listening = true;
    }
}

/// Waits for the next changes, on a new connection if there is none yet; false when there is no going on.
bool ChangeListener::hear(std::optional<ListeningConnection>& connection, ChangeSet& changes)
{
    if (m_stop->requested()) {
        return false;
    }
    const bool first = !connection;
    if (first) {
        connection.emplace(m_options, *m_stop);
    }
    const bool heard = first ? open(*connection) : connection->awaitAnnouncement();
    if (heard && take(*connection, first, changes)) {
        return true;
    }
    if (!m_stop->requested()) {
        tellFailure(connection->reason());
    }
    return false;
}

bool ChangeListener::open(ListeningConnection& connection)
{
    const bool listening = connection.open(m_uri, m_user, m_password);
    if (listening) {
        tellListening();
    }
    return listening;
}

/// Takes everything announced so far; false when it is not to be handed over.
bool ChangeListener::take(ListeningConnection& connection, bool everything, ChangeSet& changes)
{
    changes = {everything, {}, m_position};
    const TableSet announced = connection.takeAnnounced();
    for (std::size_t i = 0; i < announced.size(); ++i) {
        if (!announced.test(i)) {
            continue;
        }
        ChangedTable& table = changes.tables.emplace_back();
        table.name = kAnnouncedTables.at(i);
        if (m_options.followLog && i <= kPublications && !readLog(connection, table, changes.position)) {
            return false;
        }
    }
    return !m_stop->requested();
}

/// Reads what is logged of a table; false when the connection is lost.
bool ChangeListener::readLog(ListeningConnection& connection, ChangedTable& table, ChangePosition& position)
{
    const auto known = position.find(table.name);
    const bool hasPosition = known != position.end();
    const std::string since = hasPosition ? known->second : "0";
    std::vector<DatabaseUpdate> rows;
    const DatabaseResult result = connection.changesSince(table.name, since, rows);
    if (result.connectionError()) {
        return false;
    }
    if (result.queryError()) {
        if (m_unreadableLogs.insert(table.name).second) {
            m_trace.log("change listener: the log of %s cannot be read, so its rows are not told: %s",
                        table.name.c_str(), maskSecrets(result.getErrorMessage()).c_str());
        }
        return true;
    }
    m_unreadableLogs.erase(table.name);
    position[table.name] = inOrder(rows, since);
    if (hasPosition) { // else nobody knows what was before
        table.rows = std::move(rows);
        table.readAgain = false;
    }
    return true;
}

void ChangeListener::tellListening()
{
    m_pause = kShortestPause;
    if (std::exchange(m_toldFailure, {}).empty()) {
        m_trace.prn("change listener: listening");
    } else {
        m_trace.log("change listener: listening again");
    }
}

/// Once for each reason: attempts come every few seconds.
void ChangeListener::tellFailure(const std::string& reason)
{
    if (reason == m_toldFailure) {
        return;
    }
    m_toldFailure = reason;
    m_trace.log("change listener: not listening: %s", maskSecrets(reason).c_str());
}

/// The same, without a text made for it. Always false.
bool ChangeListener::tellOutOfMemory()
{
    if (m_toldFailure != kOutOfMemory) {
        m_toldFailure = kOutOfMemory;
        m_trace.log("change listener: not listening: %s", kOutOfMemory);
    }
    return false;
}

} // namespace oryx
