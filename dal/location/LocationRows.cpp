#include <dal/location/LocationRows.h>

#include <dal/UtilityConvert.h>
#include <dal/internal/RandomText.h>

#include <Crypt.h>

#include <algorithm>
#include <ctime>
#include <limits>
#include <optional>
#include <utility>

namespace oryx {

namespace {

/// Reads a contact from address, q-value, expiry, capabilities, header, Call-ID, CSeq and type, in this order.
void readContact(const Row& row, int first, ContactRecord& contact)
{
    contact.setAddress(row.text(first));
    contact.setQvalue(row.text(first + 1));
    contact.setExpires(row.number(first + 2, contact.expires()));
    contact.setCapabilities(row.text(first + 3));
    contact.setContactHeader(row.text(first + 4));
    contact.setCallId(row.text(first + 5));
    contact.setCseq(row.number(first + 6, contact.cseq()));
    contact.setType(row.text(first + 7));
}

/// And from permanent flag, contact key, contact set key and path vector, which follow.
void readWholeContact(const Row& row, int first, ContactRecord& contact)
{
    readContact(row, first, contact);
    if (const char* const permanent = row.text(first + 8); permanent != nullptr) {
        contact.setPermanent(*permanent);
    }
    contact.setContactid(row.integer(first + 9, contact.contactid()));
    contact.setCsid(row.integer(first + 10, contact.csid()));
    contact.setPathVector(row.text(first + 11));
}

/// Whether the subscriber is active, by the first row, or not joined.
bool isActive(const Row& row, const ContactQuery& query, zel::Trace& trace)
{
    const char* const active = query.activeColumn >= 0 ? row.text(query.activeColumn) : nullptr;
    if (active == nullptr) {
        return true;
    }
    trace.prn("active status = %s", active);
    return *active != 'f';
}

/// Where the system's time reaches further than a long, the last second that one holds, or the first.
long asLong(time_t seconds)
{
    constexpr long long kMin = std::numeric_limits<long>::min();
    constexpr long long kMax = std::numeric_limits<long>::max();
    return static_cast<long>(std::clamp<long long>(seconds, kMin, kMax));
}

/// Fills in a text that nobody can guess; false if the system gives no random numbers.
bool makeUnguessable(std::string& text)
{
    std::optional<std::string> random = randomText(32);
    if (random) {
        text = std::move(*random);
    }
    return random.has_value();
}

/// The clear password behind a stored one. One that cannot be decrypted comes out of every Crypt empty, and whoever
/// sends an empty password must not be taken for the subscriber: the record gets another in its place each time, which
/// nobody can know. So it does for one with a NUL, which would end there in a record.
bool readPassword(const char* stored, std::string& clear)
{
    Crypt::decrypt(stored, clear);
    const bool usable = !clear.empty() && clear.find('\0') == std::string::npos;
    return usable || *stored == '\0' || makeUnguessable(clear);
}

} // namespace

DatabaseResult readContacts(const QueryResult& result, const ContactQuery& query, zel::Trace& trace,
                            std::string& ordering, bool& replaceUri, std::vector<ContactRecord>& contacts)
{
    const int rows = result.rows();
    trace.prn("retrieved %d rows", rows);
    DatabaseResult outcome;
    if (rows == 0) {
        return outcome;
    }
    const Row first(result, 0);
    std::string set = first.string(0);
    trace.prn("ordering is '%s'", set.c_str());
    const bool replaces = first.flag(1, true);
    trace.prn("%s is %s", query.replaceUriName, replaces ? "true" : "false");
    if (isActive(first, query, trace)) {
        const auto read = query.whole ? readWholeContact : readContact;
        forEachRow(result, contacts,
                   [&](const Row& row) { read(row, query.firstContactColumn, contacts.emplace_back()); });
    } else {
        outcome.setNotFound();
    }
    ordering = std::move(set); // only now: where memory runs out, it is what it was
    replaceUri = replaces;
    return outcome;
}

void readPublicAddress(const Row& row, PublicAddressRecord& rec)
{
    rec.setHandle(row.text(0));
    rec.setDomain(row.text(1));
    rec.setCsid(row.integer(2, rec.csid()));
    rec.setScope(row.text(3));
    rec.setPublicAddressId(row.integer(4, rec.public_address_id()));
}

Statement addressMapQuery()
{
    return sql(
        "SELECT contact_set.ordering,  contact_set.replace_uri, address_map.handle, address_map.csid,  address_map.pattern, address_map.modification_time, address_map.priority  FROM contact_set, address_map  WHERE address_map.csid = contact_set.csid  ORDER BY address_map.priority ASC; ");
}

void traceAddressMaps(const QueryResult& result, zel::Trace& trace)
{
    const int rows = result.rows();
    if (rows == 0) {
        trace.prn("no address maps found");
    } else {
        trace.prn("found %d address map records", rows);
    }
}

AddressMapRecord readAddressMap(const Row& row)
{
    AddressMapRecord map;
    map.setOrdering(row.text(0));
    map.setReplaceUri(row.flag(1, true));
    map.setHandle(row.text(2));
    map.setCsid(row.integer(3, map.csid()));
    map.setPattern(row.text(4));
    map.setModTime(asLong(convertTime(row.text(5))));
    map.setPriority(row.integer(6, map.priority()));
    return map;
}

void readAddressMaps(const QueryResult& result, std::vector<AddressMapRecord>& maps)
{
    forEachRow(result, maps, [&](const Row& row) { maps.push_back(readAddressMap(row)); });
}

Statement subscriberQuery(const char* handle, const char* domain)
{
    return sql(
        "SELECT subscriber.sid, subscriber.auth_user_id, subscriber.oid, subscriber.s_type, subscriber.auth_type,  subscriber.s_password, subscriber.active  FROM public_address,contact_set,subscriber WHERE  subscriber.sid = contact_set.sid AND contact_set.csid = public_address.csid  AND public_address.handle = '{}' AND public_address.sip_domain = '{}';",
        handle, domain);
}

bool readSubscriber(const Row& row, zel::Trace& trace, SubscriberRecord& rec)
{
    const char* const active = row.text(6);
    trace.prn("active = %s\n", active != nullptr ? active : "not set");
    const char* const stored = row.text(5);
    std::string password;
    if (stored != nullptr && !readPassword(stored, password)) {
        return false;
    }
    fillAllOrNone(rec, [&](SubscriberRecord& filled) {
        filled.setId(row.integer(0, filled.sid()));
        filled.setUserId(row.text(1));
        filled.setOid(row.integer(2, filled.oid()));
        filled.setType(row.text(3));
        filled.setAuthType(row.text(4));
        filled.setPassword(stored != nullptr ? password.c_str() : nullptr);
    });
    return true;
}

} // namespace oryx
