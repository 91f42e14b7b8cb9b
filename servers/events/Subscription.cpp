#include <events/Subscription.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

namespace oryx::sip {

namespace {

constexpr std::array kPackageIds{"presence#", "presence#list", "presence.winfo#"};

/// Memory of the stack's that is read from once.
struct Scratch {
    Scratch() { su_home_init(home); }
    ~Scratch() { su_home_deinit(home); }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    su_home_t home[1] = {}; // NOLINT: as the stack has it
};

bool samePart(const char* left, const char* right)
{
    return std::strcmp(left != nullptr ? left : "", right != nullptr ? right : "") == 0;
}

} // namespace

const char* textOf(SubscriptionState state)
{
    constexpr std::array kTexts{"pending", "active", "terminated"};
    return kTexts.at(static_cast<std::size_t>(state));
}

std::string listNameIn(const url_t& uri)
{
    std::vector<char> name(uri.url_user != nullptr ? std::strlen(uri.url_user) + 1 : 1);
    url_unescape(name.data(), uri.url_user != nullptr ? uri.url_user : "");
    return name.data();
}

bool isOf(const Subscription& subscription, const sip_t& request)
{
    Scratch scratch;
    const sip_from_t* const from = sip_from_make(scratch.home, subscription.from.c_str());
    const sip_event_t* const event = sip_event_make(scratch.home, subscription.event.c_str());
    return from != nullptr && from->a_tag != nullptr && samePart(from->a_tag, request.sip_from->a_tag) &&
           subscription.callId == request.sip_call_id->i_id && event != nullptr && request.sip_event != nullptr &&
           samePart(event->o_type, request.sip_event->o_type) && samePart(event->o_id, request.sip_event->o_id);
}

PresenceRecord dialogOf(const Subscription& subscription)
{
    PresenceRecord record;
    record.SetSubscriptionid(subscription.id.c_str());
    record.SetFromhdr(subscription.from.c_str());
    record.SetTohdr(subscription.to.c_str());
    record.SetCallId(subscription.callId.c_str());
    record.SetSubcseq(subscription.subscribeCseq);
    record.SetEventhdr(subscription.event.c_str());
    record.SetRemotecontacthdr(subscription.contact.c_str());
    record.SetRouteset(subscription.routes.c_str());
    record.SetNotcseq(subscription.notifyCseq);
    record.SetRequestUri(subscription.requestUri.c_str());
    record.SetPackageid(kPackageIds.at(static_cast<std::size_t>(subscription.package)));
    return record;
}

WatchersRecord watcherOf(const Subscription& subscription)
{
    return {subscription.presentityKey(),
            subscription.id,
            static_cast<int>(subscription.package),
            0,
            static_cast<int>(subscription.state),
            static_cast<long>(subscription.expires),
            subscription.watcher.text(),
            subscription.presentity.text(),
            subscription.version,
            "presence",
            subscription.contact};
}

WatcherInfoRecord watcherInfoOf(const Subscription& subscription)
{
    return {subscription.presentityKey().c_str(), subscription.id.c_str(), "sip",
            static_cast<int>(subscription.version), static_cast<long>(subscription.expires)};
}

std::optional<Subscription> subscriptionOf(const PresenceRecord& dialog)
{
    const auto* const package = std::find(kPackageIds.begin(), kPackageIds.end(), dialog.packageid());
    Scratch scratch;
    const url_t* const uri = url_make(scratch.home, dialog.requestUri().c_str());
    const sip_from_t* const from = sip_from_make(scratch.home, dialog.fromhdr().c_str());
    const bool routes = dialog.routeset().empty() || sip_route_make(scratch.home, dialog.routeset().c_str()) != nullptr;
    if (package == kPackageIds.end() || uri == nullptr || from == nullptr || !routes ||
        url_make(scratch.home, dialog.remotecontacthdr().c_str()) == nullptr) {
        return std::nullopt;
    }
    const std::optional<Address> presentity = addressOf(*uri);
    const std::optional<Address> watcher = addressOf(*from->a_url);
    if (!presentity || !watcher) {
        return std::nullopt;
    }
    Subscription read;
    read.id = dialog.subscriptionid();
    read.package = static_cast<Package>(package - kPackageIds.begin());
    read.presentity = *presentity;
    read.watcher = *watcher;
    if (read.package == Package::presenceList) {
        read.presentity.handle = listNameIn(*uri);
    }
    read.from = dialog.fromhdr();
    read.to = dialog.tohdr();
    read.callId = dialog.callId();
    read.event = dialog.eventhdr();
    read.contact = dialog.remotecontacthdr();
    read.routes = dialog.routeset();
    read.requestUri = dialog.requestUri();
    read.subscribeCseq = dialog.subcseq();
    read.notifyCseq = dialog.notcseq();
    return read;
}

void complete(Subscription& subscription, const WatchersRecord& watcher)
{
    const bool active = watcher.watcherstate() == static_cast<int>(SubscriptionState::active);
    subscription.state = active ? SubscriptionState::active : SubscriptionState::pending;
    subscription.expires = watcher.expirytime();
    subscription.version = watcher.docversion();
}

void complete(Subscription& subscription, const WatcherInfoRecord& watcher)
{
    subscription.state = SubscriptionState::active;
    subscription.expires = watcher.expirytime();
    subscription.version = static_cast<unsigned long>(watcher.startingdocversion());
}

} // namespace oryx::sip
