#pragma once

#include <dal/SessionOptions.h>
#include <dal/internal/AddressMapCache.h>
#include <dal/internal/Call.h>
#include <dal/location/LocationRows.h>

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// \file
/// What both services do alike with the executor that each of them owns.

namespace oryx {

/// An argument of a connection, kept: it may be a text of the executor that goes. Null stays null.
class KeptText {
public:
    explicit KeptText(const char* text) : m_text(text != nullptr ? std::optional<std::string>(text) : std::nullopt) {}

    const char* get() const { return m_text ? m_text->c_str() : nullptr; }

private:
    std::optional<std::string> m_text;
};

/// Replaces a service's executor by a new one, connected; the old connection is closed first.
template <typename Executor>
DatabaseResult reconnect(std::unique_ptr<Executor>& executor, const SessionOptions& options,
                         const std::shared_ptr<Meter>& meter, const char* uri, const char* user, const char* password)
{
    return unlessOutOfMemory(
        [&] {
            const KeptText keptUri(uri);
            const KeptText keptUser(user);
            const KeptText keptPassword(password);
            executor = std::make_unique<Executor>();
            executor->setSessionOptions(options);
            frameOf(*executor).meter = meter;
            DatabaseResult result;
            if (!executor->connect(keptUri.get(), keptUser.get(), keptPassword.get())) {
                result.setConnectionError();
                result.setErrorMessage(executor->getErrorMessage());
            }
            return result;
        },
        [] {
            DatabaseResult result;
            result.setConnectionError();
            result.setErrorMessage(kOutOfMemory);
            return result;
        });
}

/// What every operation of a service without an executor answers.
template <typename Executor>
void checkConnected(const std::unique_ptr<Executor>& executor, DatabaseResult& result)
{
    if (executor) {
        return;
    }
    result.setConnectionError();
    keepReason("lookup attempted without a database connection", [&](const char* why) { result.setErrorMessage(why); });
}

/// Appends the keys of a service's compiled address maps; none, when memory runs out.
inline void appendKeys(const AddressMapCache& cache, std::vector<std::string>& keys)
{
    unlessOutOfMemory([&] { addAllOrNone(keys, [&] { cache.getKeys(keys); }); }, [] {});
}

/// The first SIP domain this server answers for; empty on a service without an executor.
template <typename Executor>
std::string& domainName(const std::unique_ptr<Executor>& executor, std::string& out)
{
    if (!executor) {
        out.clear();
        return out;
    }
    return executor->getDomainName(out);
}

/// The contacts that serve a request URI, by the service's cache and its executor's two queries.
template <typename Executor>
DatabaseResult lookupMapped(const std::unique_ptr<Executor>& executor, AddressMapCache& cache, const char* uri,
                            std::string& ordering, bool& replaceUri, std::vector<ContactRecord>& contacts)
{
    replaceUri = true;
    DatabaseResult connected;
    checkConnected(executor, connected);
    if (!executor) {
        return cache.lookup(std::move(connected), uri, {}, contacts);
    }
    Frame& frame = frameOf(*executor);
    return frame.guarded([&] {
        const Call call(frame);
        // The caller's own are filled when nothing can fail any more.
        std::string set = ordering;
        bool replaces = true;
        std::vector<ContactRecord> filled = contacts;
        DatabaseResult result =
            cache.lookup(std::move(connected), uri,
                         {[&](QueryResult& maps) { return fetchAddressMaps(*executor, maps); },
                          [&](int csid) { return executor->lookupContacts(set, csid, replaces, filled); }},
                         filled);
        if (result.okay()) {
            ordering.swap(set);
            replaceUri = replaces;
            contacts.swap(filled);
        }
        return result;
    });
}

} // namespace oryx
