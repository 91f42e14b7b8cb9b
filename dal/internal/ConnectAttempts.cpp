#include <dal/internal/ConnectAttempts.h>

#include <dal/internal/Memory.h>

#include <netdb.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <functional>
#include <memory>
#include <string_view>
#include <utility>

namespace oryx {

namespace {

using Options = std::unique_ptr<PQconninfoOption, decltype(&PQconninfoFree)>;

/// The items of a list, of which some may be empty; none of an empty list.
std::vector<std::string> items(const PQconninfoOption* options, std::string_view keyword)
{
    while (options->keyword != nullptr && options->keyword != keyword) {
        ++options;
    }
    std::vector<std::string> found;
    if (options->val == nullptr || *options->val == '\0') {
        return found;
    }
    for (std::string_view rest = options->val;; rest.remove_prefix(found.back().size() + 1)) {
        found.emplace_back(rest.substr(0, rest.find(',')));
        if (found.back().size() == rest.size()) {
            return found;
        }
    }
}

bool hasEmpty(const std::vector<std::string>& items)
{
    return std::find(items.begin(), items.end(), "") != items.end();
}

/// A host's item. One port alone is every host's; of names and addresses there is one for each, or none at all.
std::string at(const std::vector<std::string>& items, std::size_t index)
{
    return items.empty() ? "" : items[std::min(index, items.size() - 1)];
}

/// An address as libpq shows it, however it was written.
std::string usualForm(const std::string& address)
{
    addrinfo hints{};
    hints.ai_flags = AI_NUMERICHOST;
    addrinfo* found = nullptr;
    if (getaddrinfo(address.c_str(), nullptr, &hints, &found) != 0) {
        return address;
    }
    std::array<char, NI_MAXHOST> form{};
    getnameinfo(found->ai_addr, found->ai_addrlen, form.data(), form.size(), nullptr, 0, NI_NUMERICHOST);
    freeaddrinfo(found);
    const std::string_view shown = form.data();
    return std::string(shown.substr(0, shown.find('%'))); // without the interface
}

} // namespace

HostList::HostList(PGconn* begun)
{
    const Options options(PQconninfo(begun), &PQconninfoFree);
    if (!options) {
        return;
    }
    const std::vector<std::string> names = items(options.get(), "host");
    const std::vector<std::string> addresses = items(options.get(), "hostaddr");
    const std::vector<std::string> ports = items(options.get(), "port");
    for (std::size_t i = 0; i < std::max(names.size(), addresses.size()); ++i) {
        m_hosts.push_back({at(names, i), at(addresses, i), at(ports, i)});
    }
    m_mixed = hasEmpty(names) || hasEmpty(addresses) || hasEmpty(ports);
}

bool HostList::Host::isOf(const PGconn* connection) const
{
    const std::string& called = name.empty() ? address : name;
    return called == PQhost(connection) && port == PQport(connection) &&
           (name.empty() || address.empty() || usualForm(address) == PQhostaddr(connection));
}

bool HostList::Host::mayBeOf(const PGconn* connection) const
{
    return name.empty() && address.empty() && *PQhost(connection) == '/' && port == PQport(connection);
}

bool HostList::leaveOut(const PGconn* waiting)
{
    const bool left = std::erase_if(m_hosts, [&](const Host& host) { return host.isOf(waiting); }) > 0 ||
                      std::erase_if(m_hosts, [&](const Host& host) { return host.mayBeOf(waiting); }) > 0;
    if (m_mixed && m_hosts.size() == 1) { // twice: an empty text would be no list, and libpq would take the former
        m_hosts.push_back(m_hosts.front());
    }
    return left && !m_hosts.empty();
}

std::string HostList::list(std::string Host::*part) const
{
    std::string text;
    for (const Host& host : m_hosts) {
        text += (&host == &m_hosts.front() ? "" : ",") + host.*part;
    }
    return text;
}

Connection HostList::connect(const std::string& connectionString) const
{
    const std::string names = list(&Host::name);
    const std::string addresses = list(&Host::address);
    const std::string ports = list(&Host::port);
    // What stands behind the text wins over it.
    const std::array<const char*, 5> keywords{"dbname", "host", "hostaddr", "port", nullptr};
    const std::array<const char*, 5> values{connectionString.c_str(), names.c_str(), addresses.c_str(), ports.c_str(),
                                            nullptr};
    return Connection(PQconnectStartParams(keywords.data(), values.data(), 1));
}

bool ConnectAttempts::Attempt::underWay() const
{
    return connection && PQstatus(connection.get()) != CONNECTION_BAD && wanted != PGRES_POLLING_OK &&
           wanted != PGRES_POLLING_FAILED;
}

ConnectAttempts::ConnectAttempts(const std::string& connectionString) : m_connectionString(connectionString)
{
    m_attempts.push_back({Connection(PQconnectStart(connectionString.c_str()))});
}

bool ConnectAttempts::underWay() const
{
    return std::any_of(m_attempts.begin(), m_attempts.end(), std::mem_fn(&Attempt::underWay)) && !succeeded();
}

bool ConnectAttempts::succeeded() const
{
    return std::any_of(m_attempts.begin(), m_attempts.end(), std::mem_fn(&Attempt::succeeded));
}

bool ConnectAttempts::beginAnother()
{
    return unlessOutOfMemory([this] { return beginWithoutLatest(); }, [] { return false; });
}

bool ConnectAttempts::beginWithoutLatest()
{
    if (m_attempts.size() == 1) {
        m_hosts = HostList(m_attempts.front().connection.get());
    }
    if (!m_hosts.leaveOut(m_attempts.back().connection.get())) {
        return false;
    }
    m_sockets.reserve(m_attempts.size() + 2); // one more, and what interrupts
    Connection another = m_hosts.connect(m_connectionString);
    const bool begun = another != nullptr;
    if (begun) {
        m_attempts.push_back({std::move(another)});
    }
    return begun;
}

std::span<pollfd> ConnectAttempts::sockets(int interruption)
{
    m_sockets.clear();
    for (const Attempt& attempt : m_attempts) {
        const bool reads = attempt.wanted == PGRES_POLLING_READING;
        const int socket = attempt.underWay() ? PQsocket(attempt.connection.get()) : -1; // poll(2) ignores that one
        m_sockets.push_back({socket, static_cast<short>(reads ? POLLIN : POLLOUT), 0});
    }
    m_sockets.push_back({interruption, POLLIN, 0});
    return m_sockets;
}

void ConnectAttempts::goOn()
{
    const std::span<pollfd> now = sockets(-1);
    poll(now.data(), now.size(), 0);
    for (std::size_t i = 0; i < m_attempts.size(); ++i) {
        if (m_sockets[i].revents != 0) {
            m_attempts[i].wanted = PQconnectPoll(m_attempts[i].connection.get());
        }
    }
}

std::string ConnectAttempts::refusals() const
{
    std::string all;
    for (const Attempt& attempt : m_attempts) {
        const std::string_view said = PQerrorMessage(attempt.connection.get());
        all += said.substr(0, said.rfind('\n') + 1); // behind the last line it names the host that it waits for
    }
    return all;
}

Connection ConnectAttempts::take()
{
    const auto made = std::find_if(m_attempts.begin(), m_attempts.end(), std::mem_fn(&Attempt::succeeded));
    return std::move((made != m_attempts.end() ? *made : m_attempts.front()).connection);
}

} // namespace oryx
