// Publications: PUBLISH requests, each as one statement that the schema's function judges, and what is published.

#include <dal/Publications.h>

#include <dal/internal/PresenceAccess.h>
#include <dal/internal/RandomText.h>

#include <algorithm>
#include <iterator>
#include <optional>
#include <string_view>
#include <utility>

namespace oryx {

namespace {

constexpr std::size_t kTagBytes = 16;

/// Traces a statement and runs it: okay, connection or query error.
DatabaseResult askedOfPublications(Frame& frame, const Statement& statement, QueryResult& result)
{
    if (!frame.checkConnect()) {
        return frame.connectionError();
    }
    if (zel::Trace::enabled(zel::TraceKind::prn)) {
        zel::Trace("oryx").prn(frame.textOf(statement));
    }
    return frame.runForResult(statement, result);
}

/// What the schema's word for the outcome means to the caller.
struct PublicationMeaning {
    std::string_view word;
    PublishOutcome outcome;
    void (DatabaseResult::*status)();
    const char* message;
};
constexpr PublicationMeaning kPublicationMeanings[] = {
    {"done", PublishOutcome::done, &DatabaseResult::setOkay, nullptr},
    {"unknown", PublishOutcome::unknownPresentity, &DatabaseResult::setNotFound, nullptr},
    {"inactive", PublishOutcome::inactiveSubscriber, &DatabaseResult::setNotFound, nullptr},
    {"unmatched", PublishOutcome::conditionFailed, &DatabaseResult::setConstraintError,
     "no live publication has that entity tag"},
    {"many", PublishOutcome::tooManyPublications, &DatabaseResult::setConstraintError,
     "there would be too many publications"},
};

DatabaseResult publicationResult(const std::string& word, PublishAnswer& answer)
{
    DatabaseResult result;
    const auto* const meaning = std::find_if(std::begin(kPublicationMeanings), std::end(kPublicationMeanings),
                                             [&](const auto& known) { return known.word == word; });
    if (meaning == std::end(kPublicationMeanings)) {
        result.setQueryError();
        result.setErrorMessage("an answer to a publication that nobody knows: '" + word + "'");
        return result;
    }
    (result.*meaning->status)();
    result.setErrorMessage(meaning->message);
    answer.outcome = meaning->outcome;
    return result;
}

/// Why a request is no request; null when it is one.
const char* publicationFlaw(const PublishRequest& request)
{
    if (request.event.empty()) {
        return "a publication without an event package";
    }
    if (request.body.size() > kLongestPublication) {
        return "a publication that is too long";
    }
    const bool first = request.entityTag.empty();
    return first && (request.body.empty() || request.expires == 0) ? "an initial publication of nothing" : nullptr;
}

DatabaseResult publicationApplied(Frame& frame, const char* handle, const char* domain, const PublishRequest& request,
                                  PublishAnswer& answer)
{
    const char* const flaw = handle == nullptr || domain == nullptr ? "invalid parameters" : publicationFlaw(request);
    if (flaw != nullptr) {
        return frame.refuse(flaw);
    }
    std::optional<std::string> tag = randomText(kTagBytes);
    if (!tag) {
        return frame.refuse("the system gives no random numbers");
    }
    QueryResult rows;
    DatabaseResult result = askedOfPublications(
        frame,
        sql("SELECT apply_publication('{}', '{}', '{}', '{}', '{}', {}, '{}', '{}', {})", handle, domain, request.event,
            request.entityTag, *tag, request.expires, request.contentType, request.body, request.maxPublications),
        rows);
    if (result.okay()) {
        result = publicationResult(rows.rows() > 0 ? Row(rows, 0).string(0) : "", answer);
    }
    if (answer.outcome == PublishOutcome::done) {
        answer.entityTag = std::move(*tag);
        answer.expires = request.expires;
    }
    return result;
}

LivePublication readPublication(const Row& row)
{
    LivePublication publication;
    publication.entityTag = row.string(0);
    publication.expires = static_cast<std::uint32_t>(std::clamp(row.number(1, 1), 1L, 0x7fffffffL));
    publication.contentType = row.string(2);
    publication.body = row.string(3);
    return publication;
}

} // namespace

DatabaseResult applyPublication(PresenceService& service, const char* handle, const char* domain,
                                const PublishRequest& request, PublishAnswer& answer)
{
    answer = PublishAnswer();
    return PresenceAccess::guarded(
        service, [&](Frame& frame) { return publicationApplied(frame, handle, domain, request, answer); });
}

DatabaseResult livePublications(PresenceService& service, const char* handle, const char* domain, const char* event,
                                std::vector<LivePublication>& found)
{
    return PresenceAccess::guarded(service, [&](Frame& frame) {
        if (handle == nullptr || domain == nullptr || event == nullptr) {
            return frame.refuse("invalid parameters");
        }
        QueryResult rows;
        DatabaseResult result = askedOfPublications(
            frame,
            sql("SELECT publication.entity_tag, publication.expires - current_second(), publication.content_type, publication.body FROM public_address LEFT JOIN publication ON publication.public_address_id = public_address.public_address_id AND publication.event = '{}' AND publication.expires > current_second() WHERE public_address.handle = '{}' AND public_address.sip_domain = '{}' ORDER BY publication.modified, publication.first_tag",
                event, handle, domain),
            rows);
        if (result.okay() && rows.rows() == 0) {
            result.setNotFound();
        }
        if (result.okay()) {
            replaceByRows(rows, found, [](std::vector<LivePublication>& live, const Row& row) {
                if (row.text(0) != nullptr) {
                    live.push_back(readPublication(row));
                }
            });
        }
        return result;
    });
}

DatabaseResult removeExpiredPublications(PresenceService& service, std::vector<ExpiredPublication>& expired)
{
    return PresenceAccess::guarded(service, [&](Frame& frame) {
        QueryResult rows;
        DatabaseResult result = askedOfPublications(frame, sql("SELECT * FROM remove_expired_publications()"), rows);
        if (result.okay()) {
            forEachRow(rows, expired, [&](const Row& row) { expired.push_back({row.string(0), row.string(1)}); });
        }
        return result;
    });
}

} // namespace oryx
