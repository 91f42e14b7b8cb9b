#include "support/DatabaseTest.h"
#include "support/Show.h"

#include <gtest/gtest.h>

#include <string>

namespace publicAddressesTest {

namespace {

class PublicAddresses : public ExecutorTest {
protected:
    void SetUp() override
    {
        ExecutorTest::SetUp();
        provisionAlice();
    }

    /// Every address of record with its contact set and the contacts there, and contact sets without an address.
    std::string stored()
    {
        return rows("SELECT handle, sip_domain, sid, contact.address, contact.expires, contact.permanent"
                    " FROM contact_set FULL JOIN public_address USING (csid) LEFT JOIN contact USING (csid)"
                    " ORDER BY handle, sip_domain, contact.address");
    }

    std::string lookup(const char* handle, const char* domain, oryx::PublicAddressRecord rec = {})
    {
        const oryx::DatabaseResult result = m_executor.lookupPublicAddress(handle, domain, rec);
        return outcome(result) + " " + show(rec);
    }
};

const std::string kAlice = "alice|oryx.example|7|NULL|NULL|NULL\n";

oryx::PublicAddressRecord alice()
{
    oryx::PublicAddressRecord rec("alice", "oryx.example", 12, "public");
    rec.setPublicAddressId(42);
    return rec;
}

TEST_F(PublicAddresses, AreCreatedWithAContactSetOfTheirOwn)
{
    EXPECT_EQ(m_executor.createPublicAddress(7, "alice", "example.com"), 0);
    EXPECT_EQ(stored(), "alice|example.com|7|NULL|NULL|NULL\n" + kAlice);
    EXPECT_EQ(rows("SELECT count(DISTINCT csid) FROM public_address"), "2\n");
}

TEST_F(PublicAddresses, LeaveNothingBehindWhenTheyCannotBeCreated)
{
    EXPECT_EQ(m_executor.createPublicAddress(7, "alice", "oryx.example"), -1);
    EXPECT_EQ(reason(), "[23505] ERROR:  duplicate key value violates unique constraint "
                        "\"public_address_handle_sip_domain_key\"");
    EXPECT_EQ(m_executor.createPublicAddress(8, "bob", "oryx.example"), -1);
    EXPECT_EQ(reason(), "[23503] ERROR:  insert or update on table \"contact_set\" violates foreign key constraint "
                        "\"contact_set_sid_fkey\"");
    EXPECT_EQ(m_executor.createPublicAddress(7, nullptr, "oryx.example"), -1);
    EXPECT_EQ(reason(), "[23502] ERROR:  null value in column \"handle\" of relation \"public_address\" violates "
                        "not-null constraint");
    EXPECT_EQ(stored(), kAlice);
    EXPECT_EQ(m_executor.createPublicAddress(7, "bob", "oryx.example"), 0);
}

TEST_F(PublicAddresses, MayHaveAQuoteInTheirHandleWhereItIsACharacter)
{
    EXPECT_EQ(m_executor.createPublicAddress(7, "o'neill", "oryx.example"), plainOrBound(-1, 0));
    EXPECT_EQ(reason(), plainOrBound(kBroken, ""));
    EXPECT_EQ(stored(), plainOrBound(kAlice, kAlice + "o'neill|oryx.example|7|NULL|NULL|NULL\n"));
    EXPECT_EQ(m_executor.aliasPublicAddress("alice", "oryx.example", "l'is"), plainOrBound(-1, 0));
    EXPECT_EQ(rows("SELECT handle FROM public_address WHERE csid = 12 ORDER BY handle"),
              plainOrBound("alice\n", "alice\nl'is\n"));
}

TEST_F(PublicAddresses, ShareTheContactSetOfTheAddressTheyAreAnAliasOf)
{
    EXPECT_EQ(m_executor.aliasPublicAddress("alice", "oryx.example", "lis"), 0);
    oryx::ContactRecord binding = contact("sip:alice@192.0.2.1");
    EXPECT_EQ(m_executor.addContact("lis", "oryx.example", binding), 0);
    EXPECT_EQ(stored(), "alice|oryx.example|7|sip:alice@192.0.2.1|2000000000|f\n"
                        "lis|oryx.example|7|sip:alice@192.0.2.1|2000000000|f\n");
    EXPECT_EQ(rows("SELECT csid FROM contact"), "12\n");
    EXPECT_EQ(m_executor.removeContact("alice", "oryx.example", "sip:alice@192.0.2.1"), 0);
    EXPECT_EQ(storedContacts(), "");
}

TEST_F(PublicAddresses, AreNoAliasOfWhatIsNotThereOrTaken)
{
    EXPECT_EQ(m_executor.aliasPublicAddress("bob", "oryx.example", "robert"), -1);
    EXPECT_EQ(reason(), "[23503] ERROR:  no such address of record: bob@oryx.example");
    EXPECT_EQ(m_executor.aliasPublicAddress("alice", "oryx.example", "alice"), -1);
    EXPECT_EQ(reason(), "[23505] ERROR:  duplicate key value violates unique constraint "
                        "\"public_address_handle_sip_domain_key\"");
    EXPECT_EQ(m_executor.aliasPublicAddress("alice", "oryx.example", nullptr), -1);
    EXPECT_EQ(stored(), kAlice);
}

TEST_F(PublicAddresses, AreImportedWithAContactThatStays)
{
    EXPECT_EQ(m_executor.importPublicAddress(7, "gateway", "oryx.example", "sip:gw@192.0.2.9"), 0);
    EXPECT_EQ(stored(), kAlice + "gateway|oryx.example|7|sip:gw@192.0.2.9|NULL|t\n");
}

TEST_F(PublicAddresses, LeaveNothingBehindWhenTheyCannotBeImported)
{
    EXPECT_EQ(m_executor.importPublicAddress(7, "gateway", "oryx.example", nullptr), -1);
    EXPECT_EQ(reason(), "[23502] ERROR:  null value in column \"address\" of relation \"contact\" violates not-null "
                        "constraint");
    EXPECT_EQ(m_executor.importPublicAddress(7, "alice", "oryx.example", "sip:gw@192.0.2.9"), -1);
    EXPECT_EQ(reason(), "[23505] ERROR:  duplicate key value violates unique constraint "
                        "\"public_address_handle_sip_domain_key\"");
    EXPECT_EQ(stored(), kAlice);
}

TEST_F(PublicAddresses, AreAddedToAContactSet)
{
    EXPECT_EQ(m_executor.addPublicAddress({"lis", "oryx.example", 12, "ignored"}), 0);
    EXPECT_EQ(stored(), kAlice + "lis|oryx.example|7|NULL|NULL|NULL\n");
    EXPECT_EQ(rows("SELECT id = public_address_id, scope FROM public_address WHERE handle = 'lis'"), "t|NULL\n");
}

TEST_F(PublicAddresses, NeedHandleDomainAndContactSet)
{
    const std::string missing = "addPublicAddress: missing one or more parameters\n";
    EXPECT_EQ(m_executor.addPublicAddress({"", "oryx.example", 12, "public"}), -1);
    EXPECT_EQ(reason(), missing);
    EXPECT_EQ(m_executor.addPublicAddress({"lis", "", 12, "public"}), -1);
    EXPECT_EQ(reason(), missing);
    EXPECT_EQ(m_executor.addPublicAddress({"lis", "oryx.example", 0, "public"}), -1);
    EXPECT_EQ(reason(), missing);
    EXPECT_EQ(m_executor.addPublicAddress({"lis", "oryx.example", 99, "public"}), -1);
    EXPECT_EQ(reason(), "[23503] ERROR:  insert or update on table \"public_address\" violates foreign key constraint "
                        "\"public_address_csid_fkey\"");
    EXPECT_EQ(m_executor.addPublicAddress({"alice", "oryx.example", 12, "public"}), -1);
    EXPECT_EQ(reason(), "[23505] ERROR:  duplicate key value violates unique constraint "
                        "\"public_address_handle_sip_domain_key\"");
    EXPECT_EQ(stored(), kAlice);
}

TEST_F(PublicAddresses, AreFoundWhole)
{
    EXPECT_EQ(lookup("alice", "oryx.example"), "okay " + show(alice()));
    EXPECT_EQ(m_executor.addPublicAddress({"\u00e5sa", "b\u00fccher.example", 12, ""}), 0);
    sql("UPDATE public_address SET public_address_id = 43, scope = '' WHERE handle = '\u00e5sa'");
    oryx::PublicAddressRecord rec("\u00e5sa", "b\u00fccher.example", 12, "");
    rec.setPublicAddressId(43);
    EXPECT_EQ(lookup("\u00e5sa", "b\u00fccher.example"), "okay " + show(rec));
}

TEST_F(PublicAddresses, LeaveFieldsAsTheyWereWhereAColumnIsNull)
{
    sql("UPDATE public_address SET csid = NULL, scope = NULL");
    oryx::PublicAddressRecord rec("alice", "oryx.example", 77, "as before");
    const oryx::PublicAddressRecord before = rec;
    rec.setPublicAddressId(42);
    EXPECT_EQ(lookup("alice", "oryx.example", before), "okay " + show(rec));
}

TEST_F(PublicAddresses, AreNotFoundWhereThereAreNone)
{
    oryx::PublicAddressRecord before("as", "before", 1, "all");
    before.setPublicAddressId(2);
    EXPECT_EQ(lookup("bob", "oryx.example", before), "not found " + show(before));
    EXPECT_EQ(lookup("Alice", "oryx.example", before), "not found " + show(before));
    EXPECT_EQ(lookup(nullptr, "oryx.example", before), "query error: invalid parameters " + show(before));
    EXPECT_EQ(lookup("alice", nullptr, before), "query error: invalid parameters " + show(before));
    EXPECT_EQ(lookup("o'neill", "oryx.example", before),
              plainOrBound("query error: " + kBroken, "not found") + " " + show(before));
    EXPECT_EQ(lookup("alice", "oryx.example", before), "okay " + show(alice()));
}

} // namespace

} // namespace publicAddressesTest
