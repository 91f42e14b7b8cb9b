// A program outside the tree with classes and headers named like the suite's utilities, which the library has inside.
// It registers a contact and asks for all that the library needs those utilities for:
//
//     rival DATABASE-URI USER PASSWORD

#include "Rival.h"

#include <dal/LocationService.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace {

[[noreturn]] void calledByTheLibrary(const char* name)
{
    std::fprintf(stderr, "the library called the program's %s\n", name);
    std::abort();
}

} // namespace

// Members as the suite's utilities have them, so that the linker takes one for the other where it can.

Tracer::Tracer(int)
{
    calledByTheLibrary("Tracer");
}
Tracer::~Tracer() = default;

class Crypt {
public:
    static bool encrypt(const std::string& clear, std::string& stored);
    static bool decrypt(const std::string& stored, std::string& clear);
};

bool Crypt::encrypt(const std::string&, std::string&)
{
    calledByTheLibrary("Crypt");
}
bool Crypt::decrypt(const std::string&, std::string&)
{
    calledByTheLibrary("Crypt");
}

class StringTokenizer {
public:
    StringTokenizer(std::string text, std::string delimiters);
    bool hasMoreTokens() const;
    std::string nextToken();
    std::size_t countTokens() const;
};

StringTokenizer::StringTokenizer(std::string, std::string)
{
    calledByTheLibrary("StringTokenizer");
}
bool StringTokenizer::hasMoreTokens() const
{
    calledByTheLibrary("StringTokenizer");
}
std::string StringTokenizer::nextToken()
{
    calledByTheLibrary("StringTokenizer");
}
std::size_t StringTokenizer::countTokens() const
{
    calledByTheLibrary("StringTokenizer");
}

template <typename Value>
class Hashtable {
public:
    void put(std::string_view key, Value value);
    const Value* get(std::string_view key) const;
};

template <typename Value>
void Hashtable<Value>::put(std::string_view, Value)
{
    calledByTheLibrary("Hashtable");
}
template <typename Value>
const Value* Hashtable<Value>::get(std::string_view) const
{
    calledByTheLibrary("Hashtable");
}
template class Hashtable<std::string>;

class VariableSubstitution {
public:
    static void subst(std::string_view text, std::string& result, const Hashtable<std::string>& variables,
                      std::string_view marker);
};

void VariableSubstitution::subst(std::string_view, std::string&, const Hashtable<std::string>&, std::string_view)
{
    calledByTheLibrary("VariableSubstitution");
}

namespace wex {

class URL {
public:
    explicit URL(const char* text);
    explicit URL(const std::string& text);
};

URL::URL(const char*)
{
    calledByTheLibrary("wex::URL");
}
URL::URL(const std::string&)
{
    calledByTheLibrary("wex::URL");
}

class Uri {
public:
    explicit Uri(const char* text);
    explicit Uri(const std::string& text);
};

Uri::Uri(const char*)
{
    calledByTheLibrary("wex::Uri");
}
Uri::Uri(const std::string&)
{
    calledByTheLibrary("wex::Uri");
}

} // namespace wex

namespace {

/// What the service answers to an operation, in one line; its failure ends the program.
void show(const char* operation, const oryx::DatabaseResult& result, const std::string& answer)
{
    std::printf("%s: %s\n", operation, result.okay() ? answer.c_str() : result.getErrorMessage().c_str());
    if (!result.okay()) {
        std::exit(EXIT_FAILURE);
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 4) {
        return 2;
    }
    oryx::LocationService service;
    show("connect", service.connect(argv[1], argv[2], argv[3]), "okay");

    int key = 0;
    show("address", service.getPublicAddressKey("alice", "oryx.example", key), "okay");
    std::vector<oryx::ContactRecord> contacts(1);
    contacts.front().setAddress("sip:alice@192.0.2.99");
    show("register", service.registerContacts(key, contacts), "okay");

    std::string domain;
    std::printf("domain: %s\n", service.getDomainName(domain).c_str());

    oryx::SubscriberRecord subscriber;
    const oryx::DatabaseResult found = service.lookupSubscriber("alice", "oryx.example", subscriber);
    show("password", found, subscriber.password());

    std::string ordering;
    bool replaceUri = false;
    contacts.clear();
    const oryx::DatabaseResult mapped =
        service.lookupAddressMap("sip:5551234@oryx.example", ordering, replaceUri, contacts);
    show("map", mapped, contacts.empty() ? "no contact" : contacts.front().address());
    return EXIT_SUCCESS;
}
