#include <dal/internal/BoundSession.h>

#include <dal/internal/ConnectAttempts.h>
#include <dal/internal/Memory.h>
#include <dal/internal/Process.h>
#include <dal/internal/RandomText.h>
#include <zel/Trace.h>

#include <libpq-fe.h>

#include <poll.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <functional>
#include <list>
#include <mutex>
#include <new>
#include <optional>
#include <string_view>
#include <thread>
#include <utility>

namespace oryx {

namespace {

constexpr std::string_view kNoSuchStatement = "26000"; // the server, or a pooler before it, has forgotten it
constexpr std::string_view kPlanOutdated = "0A000";    // a migration changed what the statement returns
constexpr std::string_view kAlreadyPrepared = "42P05"; // by whom a pooler gave this server connection to before
constexpr std::string_view kNoSuchTable = "42P01";
constexpr std::string_view kNoRight = "42501";
constexpr std::string_view kConcurrentUpdate = "40001"; // of what this transaction must not see
constexpr std::string_view kDoneBefore = "OX001";       // the schema's own: a change of this number has taken effect

std::string_view sqlState(const PGresult* result)
{
    const char* const state = result != nullptr ? PQresultErrorField(result, PG_DIAG_SQLSTATE) : nullptr;
    return state != nullptr ? state : "";
}

bool succeeded(const PGresult* result)
{
    const ExecStatusType status = PQresultStatus(result);
    return status == PGRES_COMMAND_OK || status == PGRES_TUPLES_OK;
}

bool lost(const PGconn* connection)
{
    return PQstatus(connection) != CONNECTION_OK;
}

bool copies(const PGresult* result)
{
    const ExecStatusType status = PQresultStatus(result);
    return status == PGRES_COPY_IN || status == PGRES_COPY_OUT || status == PGRES_COPY_BOTH;
}

bool anyOf(std::span<const Statement> statements, bool (Statement::*is)() const)
{
    return std::any_of(statements.begin(), statements.end(), std::mem_fn(is));
}

/// Once: every connection of such a role would tell it.
void tellNoRightToSending()
{
    static std::atomic<bool> told = false;
    if (!told.exchange(true)) {
        zel::Trace("oryx").log("a role may not write the table sending: its changes are not known again when they are "
                               "sent again after a lost answer; oryx_server has the right");
    }
}

/// Says which change follows in the same transaction: refused, with all of that, if it has taken effect before.
Statement sayNumber(const std::string& name, std::int64_t number)
{
    return sql(
        "INSERT INTO sending AS kept (session, number) VALUES ('{}', {}) ON CONFLICT (session) DO UPDATE SET number = CASE WHEN kept.number < excluded.number THEN excluded.number ELSE sending_has_taken_effect(kept.answer) END, answer = NULL, sent_at = now()",
        name, number);
}

/// Says it to the function that follows, which keeps its answer too.
Statement tellNumber(const std::string& name, std::int64_t number)
{
    return sql("SELECT set_config('oryx.sending', '{}.{}', true)", name, number);
}

/// What a change is answered that has taken effect before: the schema says in its refusal what was kept.
Result answerOfFirst(PGconn* connection, const PGresult* refusal)
{
    const char* const kept = PQresultErrorField(refusal, PG_DIAG_MESSAGE_DETAIL);
    std::string value = kept != nullptr ? kept : "";
    std::array name{'a', 'n', 's', 'w', 'e', 'r', '\0'};
    PGresAttDesc column{};
    column.name = name.data();
    Result answer(PQmakeEmptyPGresult(connection, PGRES_TUPLES_OK));
    const bool row = kept == nullptr || !value.empty();
    if (!answer || PQsetResultAttrs(answer.get(), 1, &column) == 0 ||
        (row && PQsetvalue(answer.get(), 0, 0, value.data(), static_cast<int>(value.size())) == 0)) {
        throw std::bad_alloc();
    }
    return answer;
}

/// How long a silent host is waited for before the others are tried beside it, where a deadline leaves more.
constexpr std::chrono::milliseconds kLongestTurn(2000);
/// How long the server is given to answer each request to cancel, before the next.
constexpr std::array kCancelWaits{10, 100, 1000};
/// How long after the first request others may follow: one may take minutes to get nowhere.
constexpr std::chrono::milliseconds kAskingTime(1000);

/// A connection that was given up while the server was at work for it. It is closed when the server has been asked to
/// stop: a pooler passes no request on for a client that has said goodbye.
class Abandoned {
public:
    explicit Abandoned(Connection connection)
        : m_connection(std::move(connection)), m_request(PQgetCancel(m_connection.get()))
    {
    }
    ~Abandoned() { PQfreeCancel(m_request); }
    Abandoned(const Abandoned&) = delete;
    Abandoned& operator=(const Abandoned&) = delete;

    /// Asks until the server has been heard of on the connection: a request that overtakes its statement cancels
    /// nothing, and the statement would take effect when nobody thinks of it any more.
    void cancel() const
    {
        const Deadline last(kAskingTime);
        for (std::size_t asked = 0; m_request != nullptr && asked < kCancelWaits.size() && !last.passed(); ++asked) {
            std::array<char, 256> ignored{};
            PQcancel(m_request, ignored.data(), ignored.size());
            pollfd socket{PQsocket(m_connection.get()), POLLIN, 0};
            if (poll(&socket, 1, kCancelWaits.at(asked)) > 0) {
                return;
            }
        }
    }

    bool isOfServerOf(const PGconn* connection) const
    {
        return std::string_view(PQhost(m_connection.get())) == PQhost(connection) &&
               std::string_view(PQhostaddr(m_connection.get())) == PQhostaddr(connection) &&
               std::string_view(PQport(m_connection.get())) == PQport(connection);
    }

private:
    Connection m_connection;
    PGcancel* m_request;
};

/// The connections that this process has given up, until they are closed.
class AbandonedConnections {
public:
    using One = std::list<Abandoned>::iterator;

    /// Never destroyed: some may be left when the program ends.
    static AbandonedConnections& ofProcess()
    {
        static auto* const all = new AbandonedConnections;
        return *all;
    }

    /// Takes one; nothing, and closes it, where many are left of its server: one that answers nobody is asked no more.
    std::optional<One> add(Connection connection)
    {
        const std::lock_guard lock(mutexAcrossForks());
        if (m_generation != generation()) {
            m_all = new std::list<Abandoned>; // the others are the parent's, and stay so
            m_generation = generation();      // where there is no memory, the next one is still to come here
        }
        if (std::count_if(m_all->begin(), m_all->end(),
                          [&](const Abandoned& one) { return one.isOfServerOf(connection.get()); }) >= kMostOfServer) {
            return std::nullopt;
        }
        return m_all->emplace(m_all->end(), std::move(connection));
    }

    /// Not while the program ends: TLS may have been cleaned up by then.
    void close(One one)
    {
        const std::lock_guard lock(mutexAcrossForks());
        if (!m_ending) {
            m_all->erase(one);
        }
    }

private:
    static constexpr int kMostOfServer = 8;

    /// At the end of the program what was registered last comes first: before TLS, which the connections had begun.
    AbandonedConnections()
    {
        std::atexit([] {
            const std::lock_guard lock(mutexAcrossForks());
            ofProcess().m_ending = true;
        });
    }

    // Under the mutex across forks.
    std::list<Abandoned>* m_all = new std::list<Abandoned>;
    unsigned m_generation = generation();
    bool m_ending = false;
};

/// Holds off the program's signals, also from the threads that are started meanwhile.
class SignalsHeldOff {
public:
    SignalsHeldOff()
    {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &m_before);
    }
    ~SignalsHeldOff() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    SignalsHeldOff(const SignalsHeldOff&) = delete;
    SignalsHeldOff& operator=(const SignalsHeldOff&) = delete;

private:
    sigset_t m_before{};
};

} // namespace

void ResultDeleter::operator()(PGresult* result) const
{
    PQclear(result);
}

void ConnectionDeleter::operator()(PGconn* connection) const
{
    PQfinish(connection);
}

Deadline::Deadline(std::chrono::milliseconds duration)
{
    if (duration.count() > 0) {
        m_until = std::chrono::steady_clock::now() + duration;
    }
}

bool Deadline::passed() const
{
    return m_until && std::chrono::steady_clock::now() >= *m_until;
}

int Deadline::pollTimeout() const
{
    if (!m_until) {
        return -1;
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(*m_until - std::chrono::steady_clock::now());
    return static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
}

Deadline Deadline::halfWay(std::chrono::milliseconds most) const
{
    Deadline half;
    if (m_until) {
        const auto now = std::chrono::steady_clock::now();
        half.m_until = std::min(now + (*m_until - now) / 2, now + most);
    }
    return half;
}

/// Waits until the socket is ready; false when the deadline passes first.
bool BoundSession::await(PGconn* connection, short events)
{
    const bool ready = await(connection, events, m_deadline);
    if (ready) {
        hear();
    }
    return ready;
}

/// The server was heard of. Where something interrupts, the deadline is for its silence, and counts anew; whether it
/// does.
bool BoundSession::hear()
{
    const bool listens = m_interruption >= 0;
    if (listens) {
        begin();
    }
    return listens;
}

bool BoundSession::awaitInput(PGconn* connection, const Deadline& deadline) const
{
    return await(connection, POLLIN, deadline);
}

bool BoundSession::await(PGconn* connection, short events, const Deadline& deadline) const
{
    std::array<pollfd, 2> sockets{{{PQsocket(connection), events, 0}, {m_interruption, POLLIN, 0}}};
    // Lost already without one: libpq says so without waiting, and poll(2) would ignore it.
    return sockets[0].fd < 0 || await(sockets, deadline);
}

/// The last of the sockets is what interrupts. Where the system cannot wait, it is not tried again for all of the time.
bool BoundSession::await(std::span<pollfd> sockets, const Deadline& deadline) const
{
    const std::size_t watched = m_interruption >= 0 ? sockets.size() : sockets.size() - 1;
    while (!deadline.passed()) {
        const int ready = poll(sockets.data(), watched, deadline.pollTimeout());
        if (sockets.back().revents != 0 || (ready < 0 && errno != EINTR)) {
            return false;
        }
        if (ready > 0) {
            return true; // what went wrong with the socket is libpq's to find out
        }
    }
    return false;
}

bool BoundSession::underWay(const PGconn* connection)
{
    return PQpipelineStatus(connection) != PQ_PIPELINE_OFF || PQtransactionStatus(connection) == PQTRANS_ACTIVE;
}

bool BoundSession::interrupted() const
{
    pollfd interruption{m_interruption, POLLIN, 0};
    return m_interruption >= 0 && poll(&interruption, 1, 0) > 0;
}

Connection BoundSession::connect(const std::string& connectionString, std::string& refusals)
{
    m_prepared.clear();
    m_outdated = false;
    m_says = true;
    if (m_duration.count() == 0) {
        return Connection(PQconnectdb(connectionString.c_str())); // minds PGCONNECT_TIMEOUT, which polling does not
    }
    ConnectAttempts attempts(connectionString);
    // It goes on also where another was begun: the look-up of its name takes time, and the first may have answered.
    for (Deadline turn = m_deadline.halfWay(kLongestTurn); attempts.underWay(); attempts.goOn()) {
        if (await(attempts.sockets(m_interruption), turn)) {
            turn = hear() ? m_deadline.halfWay(kLongestTurn) : turn;
        } else if (late() || !turn.passed()) {
            break;
        } else { // half of what was left has gone by: the other half is the next host's, and so on
            turn = attempts.beginAnother() ? m_deadline.halfWay(kLongestTurn) : m_deadline;
        }
    }
    if (late() && !attempts.succeeded()) { // memory that runs out for words loses no connection that was made
        refusals = attempts.refusals();
    }
    return attempts.take();
}

const BoundText& BoundSession::bound(const Statement& statement)
{
    BoundText::writeKey(statement, m_key);
    const auto known = m_texts.find(m_key);
    return known != m_texts.end() ? known->second : m_texts.emplace(m_key, statement).first->second;
}

void BoundSession::number(std::span<const Statement> statements)
{
    if (!anyOf(statements, &Statement::takesEffectOnce)) {
        return;
    }
    if (m_name.empty() || m_generation != generation()) { // a parent goes on counting under its name
        nameAnew();
    }
    nextNumber();
    m_lost = false;
}

void BoundSession::nameAnew()
{
    m_name = randomText(16).value_or("");
    m_generation = generation();
    m_number = 0;
}

/// By the clock, so that the copy of a process and its original, which go by the same name, say different ones.
void BoundSession::nextNumber()
{
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    m_number = std::max<std::int64_t>(m_number + 1, std::chrono::duration_cast<std::chrono::microseconds>(now).count());
}

/// Inside a caller's transaction nothing says so: with the connection the whole of it is lost.
bool BoundSession::saysNumber(const PGconn* connection, std::span<const Statement> statements) const
{
    return m_says && !m_name.empty() && anyOf(statements, &Statement::takesEffectOnce) &&
           PQtransactionStatus(connection) == PQTRANS_IDLE;
}

Sent BoundSession::send(PGconn* connection, std::span<const Statement> statements, std::vector<Result>* each)
{
    m_each = each;
    m_saysNow = saysNumber(connection, statements);
    Sent sent = m_saysNow ? sendNumbered(connection, statements) : sendPrepared(connection, statements);
    m_each = nullptr;
    m_lost = m_saysNow && sent.outcome == Sent::Outcome::lost;
    return sent;
}

Sent BoundSession::sendNumbered(PGconn* connection, std::span<const Statement> statements)
{
    Sent sent = sendPrepared(connection, statements);
    if (m_lost && sqlState(sent.result.get()) == kConcurrentUpdate) {
        sent = sendPrepared(connection, statements); // it waited for the first sending, and may see now what that did
    }
    const std::string_view state = sqlState(sent.result.get());
    if (state == kDoneBefore) {
        return passOver(connection, statements, sent);
    }
    const bool saying = sent.text == m_saying || anyOf(statements, &Statement::keepsAnswer);
    return saying && (state == kNoSuchTable || state == kNoRight) ? sendUnsaid(connection, statements, sent)
                                                                  : std::move(sent);
}

/// Where the schema does not know repetitions, or the role may not have them known: until the next connection no change
/// says its number. Unless the change is refused all the same.
Sent BoundSession::sendUnsaid(PGconn* connection, std::span<const Statement> statements, const Sent& refused)
{
    const std::string_view why = sqlState(refused.result.get());
    m_saysNow = false;
    Sent sent = sendPrepared(connection, statements);
    m_says = sqlState(sent.result.get()) == why;
    if (!m_says && why == kNoRight) {
        tellNoRightToSending();
    }
    return sent;
}

/// A change of this number or a later one has taken effect: this one, if it was sent before and the latest is its own.
/// A later one is somebody else's who goes by this name, such as the original of a copied machine. What became of a
/// first sending nobody knows then.
Sent BoundSession::passOver(PGconn* connection, std::span<const Statement> statements, const Sent& refused)
{
    if (m_lost) {
        const Sent kept = readNumber(connection);
        if (kept.outcome != Sent::Outcome::answered) {
            return {kept.outcome};
        }
        if (PQntuples(kept.result.get()) == 1 && PQgetvalue(kept.result.get(), 0, 0) == std::to_string(m_number)) {
            return {Sent::Outcome::answered, answerOfFirst(connection, refused.result.get()),
                    &bound(statements.back())};
        }
    }
    nameAnew();
    nextNumber();
    m_saysNow = !m_name.empty();
    return sendPrepared(connection, statements);
}

/// The number that the schema keeps for this session; what is refused counts as lost.
Sent BoundSession::readNumber(PGconn* connection)
{
    m_saysNow = false;
    std::vector<Result>* const each = std::exchange(m_each, nullptr); // this one's result is nobody else's
    const Statement asking = sql("SELECT number FROM sending WHERE session = '{}'", m_name);
    Sent kept = sendPrepared(connection, {&asking, 1});
    m_each = each;
    if (kept.outcome == Sent::Outcome::answered && !succeeded(kept.result.get())) {
        kept.outcome = Sent::Outcome::lost;
    }
    return kept;
}

/// Sends statements, and once more if the connection has them prepared otherwise than they are.
Sent BoundSession::sendPrepared(PGconn* connection, std::span<const Statement> statements)
{
    Sent sent = sendOnce(connection, statements);
    const std::string_view state = sqlState(sent.result.get());
    m_outdated = state == kNoSuchStatement || state == kPlanOutdated || state == kAlreadyPrepared;
    // Inside a caller's transaction nothing can be repeated any more; they are forgotten as it ends.
    if (!m_outdated || PQtransactionStatus(connection) != PQTRANS_IDLE) {
        return sent;
    }
    sent = forget(connection, "DEALLOCATE ALL");
    return sent.outcome == Sent::Outcome::answered ? sendOnce(connection, statements) : std::move(sent);
}

/// Sends a text that has the server forget what is prepared, and forgets it too.
Sent BoundSession::forget(PGconn* connection, const char* text)
{
    m_prepared.clear();
    m_outdated = false;
    return send(connection, text);
}

bool BoundSession::rollback(PGconn* connection)
{
    const Sent sent =
        m_outdated ? forget(connection, "ROLLBACK; DEALLOCATE ALL") : send(connection, std::string("ROLLBACK"));
    return sent.outcome == Sent::Outcome::answered;
}

/// A connection that was made at the last moment, or an answer that came then: what follows would be nobody's.
bool BoundSession::tooLateToSend() const
{
    return m_interruption < 0 && late();
}

Sent BoundSession::sendOnce(PGconn* connection, std::span<const Statement> statements)
{
    if (tooLateToSend()) {
        return {Sent::Outcome::late};
    }
    if (PQpipelineStatus(connection) != PQ_PIPELINE_OFF) {
        return {Sent::Outcome::lost}; // memory ran out while it was filled: what it holds must never be sent
    }
    m_commands.clear();
    if (m_each != nullptr) {
        m_each->clear();
    }
    PQsetnonblocking(connection, 1);
    if (PQenterPipelineMode(connection) == 0 || !queue(connection, statements) || PQpipelineSync(connection) == 0) {
        return {Sent::Outcome::lost};
    }
    Sent sent = flush(connection) ? collect(connection) : Sent{Sent::Outcome::late};
    PQexitPipelineMode(connection);
    return sent;
}

bool BoundSession::queue(PGconn* connection, std::span<const Statement> statements)
{
    // Before the statements, which are in one transaction with it.
    if (m_saysNow && !queueNumber(connection, statements)) {
        return false;
    }
    return std::all_of(statements.begin(), statements.end(),
                       [&](const Statement& statement) { return queue(connection, statement); });
}

bool BoundSession::queueNumber(PGconn* connection, std::span<const Statement> statements)
{
    const Statement saying =
        anyOf(statements, &Statement::keepsAnswer) ? tellNumber(m_name, m_number) : sayNumber(m_name, m_number);
    m_saying = &bound(saying);
    return queue(connection, saying);
}

bool BoundSession::queue(PGconn* connection, const Statement& statement)
{
    const BoundText& text = bound(statement);
    const char* const name = text.name().c_str();
    if (m_prepared.insert(name).second) {
        if (PQsendPrepare(connection, name, text.text().c_str(), 0, nullptr) == 0) {
            return false;
        }
        m_commands.push_back({&text, true});
    }
    text.fill(statement, m_parameters);
    if (PQsendQueryPrepared(connection, name, static_cast<int>(m_parameters.values.size()), m_parameters.values.data(),
                            nullptr, nullptr, 0) == 0) {
        return false;
    }
    m_commands.push_back({&text, false});
    return true;
}

/// Takes the results of everything that was queued, up to the end of the round trip.
Sent BoundSession::collect(PGconn* connection)
{
    Sent sent;
    for (std::size_t at = 0;;) {
        Result result;
        if (!next(connection, result)) {
            return {Sent::Outcome::late};
        }
        // What fails as the whole takes effect comes behind the last command, and counts as one more.
        if (lost(connection) || (!result && at > m_commands.size())) {
            return {Sent::Outcome::lost};
        }
        if (!result) {
            ++at;
        } else if (PQresultStatus(result.get()) == PGRES_PIPELINE_SYNC) {
            return sent;
        } else {
            keep(std::move(result), m_commands[std::min(at, m_commands.size() - 1)], sent);
        }
    }
}

/// Takes one result of several: the first that failed, else the last, or each.
void BoundSession::keep(Result&& result, const Command& command, Sent& sent)
{
    const bool success = succeeded(result.get());
    if (command.prepares && !success) {
        m_prepared.erase(command.text->name());
    }
    if (m_each != nullptr && success && !command.prepares) {
        m_each->push_back(std::move(result));
    } else if (!sent.result || succeeded(sent.result.get())) {
        sent.result = std::move(result); // what follows a failure is only skipped
        sent.text = command.text;
    }
}

Sent BoundSession::send(PGconn* connection, const std::string& text)
{
    if (tooLateToSend()) {
        return {Sent::Outcome::late};
    }
    PQsetnonblocking(connection, 1);
    if (PQsendQuery(connection, text.c_str()) == 0) {
        return {Sent::Outcome::lost};
    }
    Sent sent;
    for (Result result; flush(connection) && next(connection, result);) {
        if (!result) {
            sent.outcome = lost(connection) ? Sent::Outcome::lost : Sent::Outcome::answered;
            return sent;
        }
        sent.result = std::move(result);
        if (copies(sent.result.get())) {
            return sent;
        }
    }
    return {Sent::Outcome::late};
}

bool BoundSession::answers(PGconn* connection)
{
    begin();
    return send(connection, "").outcome == Sent::Outcome::answered;
}

/// Sends what libpq holds back, taking in what the server sends meanwhile; false when the deadline passes first.
bool BoundSession::flush(PGconn* connection)
{
    while (PQflush(connection) > 0) {
        if (!await(connection, POLLIN | POLLOUT)) {
            return false;
        }
        PQconsumeInput(connection);
    }
    return true;
}

/// Waits for the next result; false when the deadline passes first.
bool BoundSession::next(PGconn* connection, Result& result)
{
    while (PQisBusy(connection) != 0) {
        if (!await(connection, POLLIN)) {
            return false;
        }
        if (PQconsumeInput(connection) == 0) {
            break; // lost: what libpq says of it is the result
        }
    }
    result.reset(PQgetResult(connection));
    return true;
}

void BoundSession::giveUp(Connection connection)
{
    if (!underWay(connection.get())) {
        return;
    }
    PQsetNoticeProcessor(
        connection.get(), [](void* /*nobody*/, const char* /*message*/) {}, nullptr);
    const auto one = unlessOutOfMemory([&] { return AbandonedConnections::ofProcess().add(std::move(connection)); },
                                       [] { return std::nullopt; });
    if (!one) {
        return;
    }
    // Asking takes as long as the server is silent, so it goes its own way.
    AbandonedConnections& all = AbandonedConnections::ofProcess();
    try {
        const SignalsHeldOff heldOff;
        std::thread([&all, one = *one] {
            one->cancel();
            all.close(one);
        }).detach();
    } catch (const std::exception&) {
        all.close(*one); // no memory, or no thread: the server finds out by itself
    }
}

} // namespace oryx
