#include "contract/DeskContact.h"
#include "contract/ExecutorFixture.h"

namespace contactsTest {

namespace {

using fake::Cell;
using fake::command;
using fake::noRows;
using fake::refused;
using fake::rows;
using oryx::ContactRecord;
using oryx::DatabaseCommandExecutor;
using oryx::DatabaseResult;

const std::string kByAddress =
    "SELECT contact_set.ordering,contact_set.replace_uri,subscriber.active, contact.address,contact.qvalue,contact.expires,contact.capabilities,contact.contact_header, contact.call_id,contact.cseq,contact.c_type   FROM public_address, contact_set, contact, subscriber WHERE  (public_address.handle = 'alice' AND public_address.sip_domain = 'oryx.example' AND public_address.csid = contact_set.csid AND  contact.csid = contact_set.csid AND subscriber.sid = contact_set.sid);";
const std::string kByKey =
    "SELECT contact_set.ordering, contact_set.replace_uri,subscriber.active, contact.address, contact.qvalue,  contact.expires, contact.capabilities, contact.contact_header,contact.call_id,contact.cseq,contact.c_type  FROM public_address, contact_set, contact, subscriber WHERE (public_address.id = 34 AND contact_set.csid = public_address.csid AND  contact.csid = contact_set.csid AND contact_set.sid = subscriber.sid);";
const std::string kByContactSet =
    "SELECT contact_set.ordering, contact_set.replace_uri, contact.address, contact.qvalue,  contact.expires, contact.capabilities, contact.contact_header,contact.call_id,contact.cseq,contact.c_type  FROM contact_set, contact WHERE (contact_set.csid = '12' AND contact.csid = contact_set.csid);";

Operation addContactOfAddress()
{
    const std::string statement =
        "SELECT add_contact('alice','oryx.example','sip:al%20ice@192.0.2.7:5060',1700000000,'t','0.5','methods=\"INVITE\"','<sip:al%20ice@192.0.2.7:5060>;q=0.5','a84b4c76e66710@192.0.2.7',4711)";
    return {
        .name = "addContactOfAddress",
        .call =
            [](DatabaseCommandExecutor& executor) {
                ContactRecord rec = desk();
                const int answer = executor.addContact("alice", "oryx.example", rec);
                return std::to_string(answer) + "\n" + show(rec);
            },
        .statement = statement,
        .reply = rows({{"1"}}),
        .answers = {"0\n" + kDesk, "-1\n" + kDesk, "-1\n" + kDesk, "-1\n" + kDesk},
        .traces = tracedOnceConnected({statement}),
        .rollsBack = true,
    };
}

Operation addContactToSet()
{
    const std::string statement =
        "INSERT INTO contact(csid,address,expires,permanent,qvalue,capabilities,contact_header,call_id,cseq) VALUES('12','sip:al%20ice@192.0.2.7:5060',1700000000,'t','0.5','methods=\"INVITE\"','<sip:al%20ice@192.0.2.7:5060>;q=0.5','a84b4c76e66710@192.0.2.7',4711);";
    return {
        .name = "addContactToSet",
        .call =
            [](DatabaseCommandExecutor& executor) {
                ContactRecord rec = desk();
                const int answer = executor.addContact(rec);
                return std::to_string(answer) + "\n" + show(rec);
            },
        .statement = statement,
        .reply = command("1"),
        .answers = {"0\n" + kDesk, "-1\n" + kDesk, "-1\n" + kDesk, "-1\n" + kDesk},
        .traces = tracedOnceConnected({statement}),
    };
}

Operation removeContact()
{
    const std::string statement = "SELECT remove_contact('alice','oryx.example','sip:al%20ice@192.0.2.7:5060')";
    return {
        .name = "removeContact",
        .call =
            [](DatabaseCommandExecutor& executor) {
                return std::to_string(executor.removeContact("alice", "oryx.example", "sip:al%20ice@192.0.2.7:5060"));
            },
        .statement = statement,
        .reply = rows({{"1"}}),
        .answers = {"0", "0", "-1", "-1"},
        .traces = tracedOnceConnected({statement}),
    };
}

/// What a lookup fills, with something in each before the call.
struct Found {
    std::string ordering = "before";
    bool replaceUri = false;
    std::vector<ContactRecord> contacts = {desk()};

    std::string after(const DatabaseResult& result) const
    {
        return show(result) + "\nordering='" + ordering + "' replace=" + (replaceUri ? "true" : "false") + "\n" +
               show(contacts);
    }
};

/// What every lookup holds that fails or finds no row.
const std::string kNothingFound = "ordering='before' replace=true\n" + kDesk;

std::string byAddress(DatabaseCommandExecutor& executor, Found& found)
{
    return found.after(
        executor.lookupContacts("alice", "oryx.example", found.ordering, found.replaceUri, found.contacts));
}

std::string byKey(DatabaseCommandExecutor& executor, Found& found)
{
    return found.after(executor.lookupContacts(34, found.ordering, found.replaceUri, found.contacts));
}

std::string byContactSet(DatabaseCommandExecutor& executor, Found& found)
{
    return found.after(executor.lookupContacts(found.ordering, 12, found.replaceUri, found.contacts));
}

/// One of the forms of the lookup, which differ in their statement and little else.
struct Lookup {
    std::string name;
    std::string (*call)(DatabaseCommandExecutor& executor, Found& found);
    std::string statement;
    bool traced;             // the statement is
    std::string replaceText; // in front of the flag in the trace
    bool readsActive;        // column 2 is the subscriber's flag

    /// A row of the columns all forms have, and of the subscriber's flag where the form reads it.
    std::vector<Cell> row(std::vector<Cell> columns, const Cell& active = "t") const
    {
        if (readsActive) {
            columns.insert(columns.begin() + 2, active);
        }
        return columns;
    }

    /// The executor's lines of a lookup that was answered.
    std::string trace(const std::vector<std::string>& texts) const
    {
        return (traced ? executorTrace({statement}) : "") + executorTrace(texts);
    }

    std::string traceOfRows(const std::string& count, const std::string& ordering, const std::string& replace,
                            const std::string& active = "t") const
    {
        std::vector<std::string> texts = {"retrieved " + count + " rows", "ordering is '" + ordering + "'",
                                          replaceText + replace};
        if (readsActive) {
            texts.push_back("active status = " + active);
        }
        return trace(texts);
    }
};

void PrintTo(const Lookup& lookup, std::ostream* out)
{
    *out << lookup.name;
}

const Lookup kLookupByAddress = {"ByAddress", byAddress, kByAddress, false, "replace uri is ", true};
const Lookup kLookupByKey = {"ByKey", byKey, kByKey, true, "replace is ", true};
const Lookup kLookupByContactSet = {"ByContactSet", byContactSet, kByContactSet, true, "replaceUri is ", false};

const std::vector<Cell> kRow = {"parallel",
                                "f",
                                "sip:alice@198.51.100.3",
                                "0.7",
                                "1800000000",
                                "methods=\"MESSAGE\"",
                                "<sip:alice@198.51.100.3>;q=0.7",
                                "3848276298220188511@198.51.100.3",
                                "17",
                                "mobile"};
const std::string kContact =
    "contact -1 'sip:alice@198.51.100.3' csid=-1 q='0.7' expires=1800000000 permanent='f' capabilities='methods=\"MESSAGE\"' header='<sip:alice@198.51.100.3>;q=0.7' call='3848276298220188511@198.51.100.3' cseq=17 type='mobile' path=''\n";

Operation lookupContacts(const Lookup& lookup)
{
    const std::string sent = lookup.trace({});
    return {
        .name = "lookup" + lookup.name,
        .call =
            [lookup](DatabaseCommandExecutor& executor) {
                Found found;
                return lookup.call(executor, found);
            },
        .statement = lookup.statement,
        .reply = rows({lookup.row(kRow)}),
        .answers = statusThen("ordering='parallel' replace=false\n" + kDesk + kContact, kNothingFound),
        .traces = {lookup.traceOfRows("1", "parallel", "false"), "", sent, sent},
    };
}

class ContactStatement : public StatementTest {};

TEST_P(ContactStatement, AnswersForItsEndingAndLeavesTheReason)
{
    endsAsTheCourseDoes();
}

INSTANTIATE_TEST_SUITE_P(OnCourse, ContactStatement,
                         testing::ValuesIn(onEveryCourse({addContactOfAddress(), addContactToSet(), removeContact(),
                                                          lookupContacts(kLookupByAddress),
                                                          lookupContacts(kLookupByKey),
                                                          lookupContacts(kLookupByContactSet)})),
                         kRowName);

class ContactArguments : public RefusalTest {};

TEST_P(ContactArguments, AreRefusedWithoutAStatementOnceTheConnectionIsThere)
{
    sendsNothing();
}

std::string removes(DatabaseCommandExecutor& executor, const char* handle, const char* domain, const char* address)
{
    return std::to_string(executor.removeContact(handle, domain, address));
}

std::string looksUp(DatabaseCommandExecutor& executor, const char* handle, const char* domain)
{
    Found found;
    return found.after(executor.lookupContacts(handle, domain, found.ordering, found.replaceUri, found.contacts));
}

std::string looksUp(DatabaseCommandExecutor& executor, int csid)
{
    Found found;
    return found.after(executor.lookupContacts(found.ordering, csid, found.replaceUri, found.contacts));
}

std::vector<Refusal> refusals()
{
    const std::string invalid = "invalid parameters";
    const std::string refusedLookup = "query error: invalid parameters\n" + kNothingFound;
    const std::string noContactSet = "query error: NULL csid\n" + kNothingFound;
    return {
        {"RemovalWithoutHandle", [](auto& executor) { return removes(executor, nullptr, "d", "a"); }, "-1", invalid},
        {"RemovalWithoutDomain", [](auto& executor) { return removes(executor, "h", nullptr, "a"); }, "-1", invalid},
        {"RemovalWithoutAddress", [](auto& executor) { return removes(executor, "h", "d", nullptr); }, "-1", invalid},
        {"LookupWithoutHandle", [](auto& executor) { return looksUp(executor, nullptr, "d"); }, refusedLookup, invalid},
        {"LookupWithoutDomain", [](auto& executor) { return looksUp(executor, "h", nullptr); }, refusedLookup, invalid},
        {"LookupOfContactSetZero", [](auto& executor) { return looksUp(executor, 0); }, noContactSet,
         "an earlier failure"},
        {"LookupOfANegativeContactSet", [](auto& executor) { return looksUp(executor, -1); }, noContactSet,
         "an earlier failure"},
    };
}

INSTANTIATE_TEST_SUITE_P(That, ContactArguments, testing::ValuesIn(refusals()), kRowName);

class ContactsTest : public ExecutorTest {};

TEST_F(ContactsTest, NullTextsAreNullAndEmptyTextsStayEmptyInTheStoredFunction)
{
    libpq.replies({noRows(), noRows()});
    ContactRecord rec;
    EXPECT_EQ(executor.addContact(nullptr, nullptr, rec), 0);
    EXPECT_EQ(executor.addContact("", "", rec), 0);
    EXPECT_EQ(libpq.take(), "exec SELECT add_contact(NULL,NULL,'',0,'f','','','','',0)\n"
                            "exec SELECT add_contact('','','',0,'f','','','','',0)\n");
}

TEST_F(ContactsTest, AFreshContactIsInsertedWithEmptyTexts)
{
    libpq.replies({command("1")});
    ContactRecord rec;
    EXPECT_EQ(executor.addContact(rec), 0);
    EXPECT_EQ(
        libpq.take(),
        "exec INSERT INTO contact(csid,address,expires,permanent,qvalue,capabilities,contact_header,call_id,cseq) VALUES('-1','',0,'f','','','','',0);\n");
}

TEST_F(ContactsTest, NumbersOfAContactAreWrittenInDecimal)
{
    libpq.replies({noRows(), command("1")});
    ContactRecord rec;
    rec.setCsid(-2147483647 - 1);
    rec.setExpires(-1);
    rec.setCseq(2147483647);
    EXPECT_EQ(executor.addContact("h", "d", rec), 0);
    EXPECT_EQ(executor.addContact(rec), 0);
    EXPECT_EQ(
        libpq.take(),
        "exec SELECT add_contact('h','d','',-1,'f','','','','',2147483647)\n"
        "exec INSERT INTO contact(csid,address,expires,permanent,qvalue,capabilities,contact_header,call_id,cseq) VALUES('-2147483648','',-1,'f','','','','',2147483647);\n");
}

TEST_F(ContactsTest, AQuoteGoesIntoTheStatementAsItIs)
{
    libpq.replies({noRows(), noRows(), noRows(11)});
    ContactRecord rec;
    rec.setAddress("sip:o'brien@h");
    Found found;
    EXPECT_EQ(executor.addContact("o'brien", "d", rec), 0);
    EXPECT_EQ(executor.removeContact("o'brien", "d", "sip:o'brien@h"), 0);
    EXPECT_TRUE(executor.lookupContacts("o'brien", "it's", found.ordering, found.replaceUri, found.contacts).okay());
    EXPECT_EQ(
        libpq.take(),
        "exec SELECT add_contact('o'brien','d','sip:o'brien@h',0,'f','','','','',0)\n"
        "exec SELECT remove_contact('o'brien','d','sip:o'brien@h')\n"
        "exec SELECT contact_set.ordering,contact_set.replace_uri,subscriber.active, contact.address,contact.qvalue,contact.expires,contact.capabilities,contact.contact_header, contact.call_id,contact.cseq,contact.c_type   FROM public_address, contact_set, contact, subscriber WHERE  (public_address.handle = 'o'brien' AND public_address.sip_domain = 'it's' AND public_address.csid = contact_set.csid AND  contact.csid = contact_set.csid AND subscriber.sid = contact_set.sid);\n");
}

TEST_F(ContactsTest, AnyNumberIsLookedUpAsAPublicAddressKey)
{
    libpq.replies({noRows(11)});
    Found found;
    EXPECT_TRUE(executor.lookupContacts(-1, found.ordering, found.replaceUri, found.contacts).okay());
    EXPECT_EQ(
        libpq.take(),
        "exec SELECT contact_set.ordering, contact_set.replace_uri,subscriber.active, contact.address, contact.qvalue,  contact.expires, contact.capabilities, contact.contact_header,contact.call_id,contact.cseq,contact.c_type  FROM public_address, contact_set, contact, subscriber WHERE (public_address.id = -1 AND contact_set.csid = public_address.csid AND  contact.csid = contact_set.csid AND contact_set.sid = subscriber.sid);\n");
}

TEST_F(ContactsTest, ARemovalIsTracedBeforeItsStatementIsSent)
{
    libpq.replies({refused("42601"), refused("42601")});
    EXPECT_EQ(executor.removeContact("h", "d", "a"), -1);
    const std::string statement = "SELECT remove_contact('h','d','a')";
    EXPECT_EQ(trace.take(), executorTrace({statement}) + refusedTwiceTrace(statement));
}

TEST(ContactsWithoutAConnection, ARemovalIsDoneAndAnAdditionIsNot)
{
    const fake::Libpq libpq;
    DatabaseCommandExecutor executor;
    ContactRecord rec;
    EXPECT_EQ(executor.removeContact("alice", "oryx.example", "sip:alice@192.0.2.7"), 0);
    EXPECT_EQ(executor.addContact("alice", "oryx.example", rec), -1);
    EXPECT_EQ(executor.addContact(rec), -1);
    EXPECT_EQ(executor.getErrorMessage(), "attempt to execute a command with no database connection");
}

class ContactLookup : public testing::TestWithParam<Lookup>, protected UnconnectedExecutor {
protected:
    void SetUp() override { connect(); }

    std::string looksUp(fake::Reply reply)
    {
        libpq.replies({std::move(reply)});
        return GetParam().call(executor, found);
    }

    std::string traced() { return trace.take("DatabaseCommandExecutor"); }

    Found found;
};

INSTANTIATE_TEST_SUITE_P(Of, ContactLookup, testing::Values(kLookupByAddress, kLookupByKey, kLookupByContactSet),
                         kRowName);

TEST_P(ContactLookup, WithoutRowsIsOkayAndFindsNothing)
{
    EXPECT_EQ(looksUp(noRows(11)), "okay\n" + kNothingFound);
    EXPECT_EQ(traced(), GetParam().trace({"retrieved 0 rows"}));
}

TEST_P(ContactLookup, AppendsARecordForEachRowInOrder)
{
    const std::vector<Cell> second = {"sequential", "t",   "sip:alice@203.0.113.9", "1.0", "1900000000", "", "", "cid",
                                      "18",         "pstn"};
    EXPECT_EQ(
        looksUp(rows({GetParam().row(kRow), GetParam().row(second)})),
        "okay\nordering='parallel' replace=false\n" + kDesk + kContact +
            "contact -1 'sip:alice@203.0.113.9' csid=-1 q='1.0' expires=1900000000 permanent='f' capabilities='' header='' call='cid' cseq=18 type='pstn' path=''\n");
    EXPECT_EQ(traced(), GetParam().traceOfRows("2", "parallel", "false"));
}

TEST_P(ContactLookup, AppendsBehindWhatAnEarlierOneFound)
{
    looksUp(rows({GetParam().row(kRow)}));
    EXPECT_EQ(looksUp(rows({GetParam().row(kRow)})),
              "okay\nordering='parallel' replace=false\n" + kDesk + kContact + kContact);
}

TEST_P(ContactLookup, LeavesTheDefaultOfAContactWhereItsColumnIsNull)
{
    const std::string front = "okay\nordering='parallel' replace=false\n";
    const std::vector<std::string> expected = {
        "contact -1 '' csid=-1 q='0.7' expires=1800000000 permanent='f' capabilities='methods=\"MESSAGE\"' header='<sip:alice@198.51.100.3>;q=0.7' call='3848276298220188511@198.51.100.3' cseq=17 type='mobile' path=''\n",
        "contact -1 'sip:alice@198.51.100.3' csid=-1 q='' expires=1800000000 permanent='f' capabilities='methods=\"MESSAGE\"' header='<sip:alice@198.51.100.3>;q=0.7' call='3848276298220188511@198.51.100.3' cseq=17 type='mobile' path=''\n",
        "contact -1 'sip:alice@198.51.100.3' csid=-1 q='0.7' expires=0 permanent='f' capabilities='methods=\"MESSAGE\"' header='<sip:alice@198.51.100.3>;q=0.7' call='3848276298220188511@198.51.100.3' cseq=17 type='mobile' path=''\n",
        "contact -1 'sip:alice@198.51.100.3' csid=-1 q='0.7' expires=1800000000 permanent='f' capabilities='' header='<sip:alice@198.51.100.3>;q=0.7' call='3848276298220188511@198.51.100.3' cseq=17 type='mobile' path=''\n",
        "contact -1 'sip:alice@198.51.100.3' csid=-1 q='0.7' expires=1800000000 permanent='f' capabilities='methods=\"MESSAGE\"' header='' call='3848276298220188511@198.51.100.3' cseq=17 type='mobile' path=''\n",
        "contact -1 'sip:alice@198.51.100.3' csid=-1 q='0.7' expires=1800000000 permanent='f' capabilities='methods=\"MESSAGE\"' header='<sip:alice@198.51.100.3>;q=0.7' call='' cseq=17 type='mobile' path=''\n",
        "contact -1 'sip:alice@198.51.100.3' csid=-1 q='0.7' expires=1800000000 permanent='f' capabilities='methods=\"MESSAGE\"' header='<sip:alice@198.51.100.3>;q=0.7' call='3848276298220188511@198.51.100.3' cseq=0 type='mobile' path=''\n",
        "contact -1 'sip:alice@198.51.100.3' csid=-1 q='0.7' expires=1800000000 permanent='f' capabilities='methods=\"MESSAGE\"' header='<sip:alice@198.51.100.3>;q=0.7' call='3848276298220188511@198.51.100.3' cseq=17 type='' path=''\n",
    };
    for (std::size_t column = 2; column < kRow.size(); ++column) {
        found = Found{.contacts = {}};
        EXPECT_EQ(looksUp(rows({GetParam().row(withNull(kRow, column))})), front + expected[column - 2])
            << "column " << column;
    }
}

TEST_P(ContactLookup, ReadsANullOrderingAsEmpty)
{
    EXPECT_EQ(looksUp(rows({GetParam().row(withNull(kRow, 0))})),
              "okay\nordering='' replace=false\n" + kDesk + kContact);
    EXPECT_EQ(traced(), GetParam().traceOfRows("1", "", "false"));
}

TEST_P(ContactLookup, ReplacesTheUriUnlessTheContactSetSaysOtherwise)
{
    const auto withFlag = [this](const Cell& flag) {
        std::vector<Cell> row = kRow;
        row[1] = flag;
        looksUp(rows({GetParam().row(row)}));
        return std::string(found.replaceUri ? "true\n" : "false\n") + traced();
    };
    const std::string yes = "true\n" + GetParam().traceOfRows("1", "parallel", "true");
    const std::string no = "false\n" + GetParam().traceOfRows("1", "parallel", "false");
    EXPECT_EQ(withFlag(std::nullopt), yes);
    EXPECT_EQ(withFlag("t"), yes);
    EXPECT_EQ(withFlag("true"), yes);
    EXPECT_EQ(withFlag("f"), no);
    EXPECT_EQ(withFlag("T"), no);
    EXPECT_EQ(withFlag(""), no);
}

TEST_P(ContactLookup, KeepsTheErrorTextOfAnEarlierFailure)
{
    executor.error("an earlier failure");
    looksUp(rows({GetParam().row(kRow)}));
    looksUp(noRows(11));
    EXPECT_EQ(executor.getErrorMessage(), "an earlier failure");
}

TEST_P(ContactLookup, IsTracedFromStatementToRows)
{
    looksUp(noRows(11));
    EXPECT_EQ(trace.take(),
              GetParam().trace({}) + answeredTrace(GetParam().statement) + executorTrace({"retrieved 0 rows"}));
}

/// The forms that know the subscriber.
class ContactLookupOfSubscriber : public ContactLookup {};

INSTANTIATE_TEST_SUITE_P(Of, ContactLookupOfSubscriber, testing::Values(kLookupByAddress, kLookupByKey), kRowName);

TEST_P(ContactLookupOfSubscriber, IsNotFoundForAnInactiveOneThoughContactsExist)
{
    EXPECT_EQ(looksUp(rows({GetParam().row(kRow, "f"), GetParam().row(kRow, "t")})),
              "not found\nordering='parallel' replace=false\n" + kDesk);
    EXPECT_EQ(traced(), GetParam().traceOfRows("2", "parallel", "false", "f"));
}

TEST_P(ContactLookupOfSubscriber, TakesTheFirstRowsWordForBeingActive)
{
    EXPECT_EQ(looksUp(rows({GetParam().row(kRow, "t"), GetParam().row(kRow, "f")})),
              "okay\nordering='parallel' replace=false\n" + kDesk + kContact + kContact);
}

TEST_P(ContactLookupOfSubscriber, TakesOnlyALowerCaseFAtTheFrontForInactive)
{
    const auto withActive = [this](const Cell& active) {
        found = Found();
        const std::string answer = looksUp(rows({GetParam().row(kRow, active)}));
        return answer + traced();
    };
    const std::string contacts = "okay\nordering='parallel' replace=false\n" + kDesk + kContact;
    EXPECT_EQ(withActive("F"), contacts + GetParam().traceOfRows("1", "parallel", "false", "F"));
    EXPECT_EQ(withActive(""), contacts + GetParam().traceOfRows("1", "parallel", "false", ""));
    EXPECT_EQ(withActive("false"), "not found\nordering='parallel' replace=false\n" + kDesk +
                                       GetParam().traceOfRows("1", "parallel", "false", "false"));
}

TEST_P(ContactLookupOfSubscriber, TakesNullForActiveAndTracesNoStatus)
{
    EXPECT_EQ(looksUp(rows({GetParam().row(kRow, std::nullopt)})),
              "okay\nordering='parallel' replace=false\n" + kDesk + kContact);
    EXPECT_EQ(traced(),
              GetParam().trace({"retrieved 1 rows", "ordering is 'parallel'", GetParam().replaceText + "false"}));
}

} // namespace

} // namespace contactsTest
