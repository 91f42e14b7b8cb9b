// Text arguments about publications.

#include "hostile/Registrar.h"
#include "support/ShowPublications.h"

#include <dal/Publications.h>

#include <string>

namespace {

using oryx::DatabaseResult;
using oryx::PublishAnswer;
using oryx::PublishRequest;

/// What Carol's telephone publishes; but for the entity tags, which are made by chance and compared with none.
const Row kPublished("publication", {{"public_address_id", "44"},
                                     {"event", "'presence'"},
                                     {"first_tag", "'first'"},
                                     {"entity_tag", "'tag'"},
                                     {"presentity", "'carol@oryx.example'"},
                                     {"expires", "2000000000"},
                                     {"content_type", "'application/pidf+xml'"},
                                     {"body", "'<presence/>'"}});

PublishRequest publishRequest()
{
    PublishRequest request;
    request.event = "presence";
    request.expires = 3600; // the clock stands that much before
    request.contentType = "application/pidf+xml";
    request.body = "<presence/>";
    request.maxPublications = 5;
    return request;
}

/// What a request answers, without the tag.
std::string answered(Library& library, const char* handle, const char* domain, const PublishRequest& request)
{
    PublishAnswer answer;
    const DatabaseResult result = applyPublication(library.presence, handle, domain, request, answer);
    return told(result) + show(answer.outcome) + "\n";
}

constexpr const char* kPublishedAnswer = "okay\ndone\n";

/// A text of a request for a new publication.
struct PublishText {
    const char* name;
    const char* column;
    Place place;
    std::string PublishRequest::*field;
};
constexpr PublishText kPublishTexts[]{
    {"event", "event", Place::key, &PublishRequest::event},
    {"contentType", "content_type", Place::column, &PublishRequest::contentType},
    {"body", "body", Place::column, &PublishRequest::body},
};

void addRequests(Entries& table)
{
    for (const PublishText& text : kPublishTexts) {
        table.push_back({
            .argument =
                std::string("oryx::applyPublication(service, handle, domain, request, answer) request.") + text.name,
            .variant = "first",
            .place = text.place,
            .before = {kAddress.insert()},
            .change = {kPublished.with(text.column).insert()},
            .call =
                [field = text.field](Library& library, const std::string& value) {
                    PublishRequest request = publishRequest();
                    request.*field = value;
                    return answered(library, "carol", "oryx.example", request);
                },
            .answer = kPublishedAnswer,
            .refused = "query error 54000\nfailed\n",
        });
    }
    table.push_back({
        .argument = "oryx::applyPublication(service, handle, domain, request, answer) request.entityTag",
        .variant = "later",
        .before = {kAddress.insert(), kPublished.with("entity_tag").insert()},
        .change = {"UPDATE publication SET body = 'new' WHERE entity_tag = $1"},
        .call =
            [](Library& library, const std::string& text) {
                PublishRequest request = publishRequest();
                request.entityTag = text;
                request.body = "new";
                return answered(library, "carol", "oryx.example", request);
            },
        .answer = kPublishedAnswer,
    });
}

void addPublicationsOf(Entries& table, const AddressPart& part)
{
    const std::string presentity = part.isHandle ? "$1 || '@oryx.example'" : "'carol@' || $1";
    table.push_back({
        .argument = std::string("oryx::applyPublication(service, handle, domain, request, answer) ") + part.name,
        .variant = "first",
        .place = Place::key,
        .before = {kAddress.with(part.column).insert()},
        // Without its address of record nothing is published.
        .change = {"INSERT INTO publication (public_address_id, event, first_tag, entity_tag, presentity, expires, "
                   "content_type, body) SELECT 44, 'presence', 'first', 'tag', " +
                   presentity +
                   ", 2000000000, 'application/pidf+xml', '<presence/>' FROM public_address WHERE id = 44"},
        .call =
            [=](Library& library, const std::string& text) {
                return answered(library, part.handle(text), part.domain(text), publishRequest());
            },
        .answer = kPublishedAnswer,
        .refused = "not found\nunknown presentity\n",
    });
    table.push_back({
        .argument = std::string("oryx::livePublications(service, handle, domain, event, found) ") + part.name,
        .place = Place::key,
        .before = {kAddress.with(part.column).insert(), kPublished.insert()},
        .call =
            [=](Library& library, const std::string& text) {
                return listed<oryx::LivePublication>([&](auto& found) {
                    return livePublications(library.presence, part.handle(text), part.domain(text), "presence", found);
                });
            },
        .answer = "okay\n<presence/> (application/pidf+xml) 3600 s\n",
        .refused = "not found\n",
    });
}

} // namespace

Entries publicationEntries()
{
    Entries table;
    addRequests(table);
    for (const AddressPart& part : kAddressParts) {
        addPublicationsOf(table, part);
    }
    table.push_back({
        .argument = "oryx::livePublications(service, handle, domain, event, found) event",
        .place = Place::key,
        .before = {kAddress.insert(), kPublished.with("event").insert()},
        .call =
            [](Library& library, const std::string& text) {
                return listed<oryx::LivePublication>([&](auto& found) {
                    return livePublications(library.presence, "carol", "oryx.example", text.c_str(), found);
                });
            },
        .answer = "okay\n<presence/> (application/pidf+xml) 3600 s\n",
        .refused = "okay\n",
    });
    return table;
}
