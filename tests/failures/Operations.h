#pragma once

#include <dal/DatabaseCommandExecutor.h>
#include <dal/LocationService.h>
#include <dal/PresenceDatabaseCommandExecutor.h>
#include <dal/PresenceService.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

/// \file
/// What is asked while a server is broken, and what is answered, in words.

namespace failures {

/// Whereto and how services connect. The settings are those that the operator ships, the roles too.
struct Way {
    oryx::SessionOptions::Statements statements = oryx::SessionOptions::Statements::plain;
    std::chrono::milliseconds deadline{0};
    std::string password = "only-for-the-tests";
    std::string uri = "postgresql://127.0.0.1/oryx";

    bool bound() const { return statements == oryx::SessionOptions::Statements::bound; }
};

/// Of the library's services and executors, the one that an operation belongs to.
enum class Part { registrar, events, provisioning };

/// What a server's thread holds, of which one part is connected.
struct Library {
    /// Connects as well as it can.
    Library(const Way& way, Part part);

    Way way;
    oryx::LocationService registrar;
    oryx::PresenceService events;
    oryx::DatabaseCommandExecutor provisioning;
};

/// An operation, and what it answers in words.
struct Operation {
    std::string name;
    Part part;
    std::function<std::string(Library& library)> call;
};

/// Status, SQLSTATE and the first line of the message; nothing in it depends on the machine.
std::string told(const oryx::DatabaseResult& result);

/// One of each kind: a new connection, a lookup, a transaction, an addition and a change of the event server's, a
/// stored function, and the one that tells no failure.
std::vector<Operation> oneOfEachKind();
/// The same, with values that hold that text.
std::vector<Operation> withText(const std::string& text);
/// Those that are not what they look like when something fails.
std::vector<Operation> misleading();
/// A refresh of contacts of Alice's, in this order: 1 and 2 are there.
oryx::DatabaseResult refresh(Library& library, const std::vector<int>& numbers);

} // namespace failures
