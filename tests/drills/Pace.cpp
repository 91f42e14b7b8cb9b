#include "drills/Pace.h"

#include <dal/Dal.h>

#include <atomic>
#include <random>
#include <stdexcept>
#include <thread>
#include <vector>

namespace drill {

namespace {

using std::chrono::steady_clock;

constexpr int kFirst = 10001; // key of the first address of record, "p10001"
constexpr int kAddressesOfRecord = 100000;

bool refresh(oryx::LocationService& service, int key, long cseq)
{
    const std::string address = "sip:p" + std::to_string(key) + "@192.0.2.1";
    std::vector<oryx::ContactRecord> contacts(1);
    contacts.front().setAddress(address.c_str());
    contacts.front().setContactHeader(("<" + address + ">;expires=3600").c_str());
    contacts.front().setCallId("843817637684230@192.0.2.1");
    contacts.front().setQvalue("0.7");
    contacts.front().setCseq(cseq);
    return service.updateContacts(key, contacts).okay();
}

bool lookUp(oryx::LocationService& service, int key)
{
    std::string ordering;
    bool replaceUri = false;
    std::vector<oryx::ContactRecord> contacts;
    const std::string handle = "p" + std::to_string(key);
    return service.lookupContacts(handle.c_str(), "oryx.example", ordering, replaceUri, contacts).okay() &&
           contacts.size() == 1;
}

} // namespace

std::string measurePace(const Account& account, const std::string& request, int services, std::chrono::seconds time)
{
    std::atomic<long> done = 0;
    std::atomic<bool> failed = false;
    std::vector<std::thread> threads;
    const auto begin = steady_clock::now();
    for (int number = 0; number < services; ++number) {
        threads.emplace_back([&, number] {
            oryx::LocationService service;
            account.connect(service);
            std::mt19937 random(static_cast<std::mt19937::result_type>(number));
            std::uniform_int_distribution<int> keys(kFirst, kFirst + kAddressesOfRecord - 1);
            for (long cseq = 2; steady_clock::now() < begin + time && !failed; ++cseq) {
                const int key = keys(random);
                failed = failed || !(request == "refresh" ? refresh(service, key, cseq) : lookUp(service, key));
                ++done;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    if (failed) {
        throw std::runtime_error("a request failed");
    }
    return std::to_string(done) + " " + std::to_string(done / time.count());
}

} // namespace drill
