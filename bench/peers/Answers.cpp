// What a contender answers to each job, as a text: all must answer alike before they are measured.

#include "Jobs.h"

#include <algorithm>
#include <string>
#include <vector>

namespace peers {

namespace {

std::string shown(const Contacts& found)
{
    std::vector<std::string> lines;
    lines.reserve(found.contacts.size());
    for (const oryx::ContactRecord& each : found.contacts) {
        lines.push_back(each.address() + "|" + each.qvalue() + "|" + std::to_string(each.expires()) + "|" +
                        each.permanent() + "|" + each.capabilities() + "|" + each.contactHeader() + "|" +
                        each.callId() + "|" + std::to_string(each.cseq()) + "|" + each.type() + "|" +
                        std::to_string(each.csid()) + "|" + each.pathVector() + "\n");
    }
    std::sort(lines.begin(), lines.end()); // they come in no particular order
    std::string text = found.ordering + (found.replaceUri ? " replace\n" : " keep\n");
    for (const std::string& line : lines) {
        text += line;
    }
    return text;
}

std::string shown(const oryx::PresenceRecord& found)
{
    return found.subscriptionid() + "|" + found.fromhdr() + "|" + found.tohdr() + "|" + found.callId() + "|" +
           std::to_string(found.subcseq()) + "|" + found.eventhdr() + "|" + found.remotecontacthdr() + "|" +
           found.routeset() + "|" + std::to_string(found.notcseq()) + "|" + found.requestUri() + "|" +
           found.packageid() + "\n";
}

std::string shown(const std::vector<oryx::WatchersRecord>& found)
{
    std::vector<std::string> lines;
    lines.reserve(found.size());
    for (const oryx::WatchersRecord& each : found) {
        lines.push_back(each.dumpToString("") + "\n");
    }
    std::sort(lines.begin(), lines.end());
    std::string text;
    for (const std::string& line : lines) {
        text += line;
    }
    return text;
}

std::string lookups(Contender& contender, const Input& input)
{
    std::string text = std::to_string(contender.key(input.handle, input.domain)) + "\n" +
                       shown(contender.contactsByAddress(input.handle, input.domain)) +
                       shown(contender.contactsByKey(input.n)) + shown(contender.contactsBySet(input.n)) +
                       shown(contender.findDialog(input.storedDialog)) + shown(contender.watchers(input.presentityKey));
    for (const oryx::AccessControlEntry& rule : contender.accessRules(input.handle, input.domain, kApplication)) {
        text += rule.requester() + " " + rule.action() + "\n";
    }
    return text;
}

std::string changes(Contender& contender, Input& input)
{
    std::string text = contender.registerContact(input.n, input.added) ? "added\n" : "not added\n";
    text += shown(contender.contactsBySet(input.n));
    text += contender.registerContact(input.n, input.added) ? "added\n" : "not added\n";
    input.added.front().setExpires(2000000001);
    contender.refreshContact(input.n, input.added);
    text += shown(contender.contactsBySet(input.n));
    contender.unregisterContact(input.n, input.added);
    text += shown(contender.contactsBySet(input.n));
    contender.storeDialog(input.dialog);
    text += shown(contender.findDialog(input.dialog.subscriptionid()));
    contender.removeDialog(input.dialog.subscriptionid());
    const std::string extension = contender.reserveExtension();
    contender.releaseExtension(extension);
    return text + (extension.starts_with("conference") ? "reserved\n" : "not reserved\n");
}

} // namespace

std::string answers(Contender& contender, int size)
{
    std::string text;
    for (int n = 1; n <= 10; ++n) {
        Input input(n * (size / 10), size, 99);
        text += lookups(contender, input) + changes(contender, input);
    }
    return text;
}

} // namespace peers
