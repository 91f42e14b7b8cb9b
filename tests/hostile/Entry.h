#pragma once

#include "hostile/Row.h"
#include "support/Show.h"

#include <dal/DatabaseCommandExecutor.h>
#include <dal/LocationService.h>
#include <dal/PresenceDatabaseCommandExecutor.h>
#include <dal/PresenceService.h>

#include <algorithm>
#include <functional>
#include <ostream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

/// \file
/// The table of all text arguments: an entry for each, which says what a call with a text in that argument does.

/// The library as two servers hold it, each session bound.
struct Library {
    oryx::LocationService location;
    oryx::PresenceService presence;
    oryx::DatabaseCommandExecutor registrar;
    oryx::PresenceDatabaseCommandExecutor events;

    template <typename Target>
    Target& get()
    {
        if constexpr (std::is_same_v<Target, oryx::LocationService>) {
            return location;
        } else if constexpr (std::is_same_v<Target, oryx::PresenceService>) {
            return presence;
        } else if constexpr (std::is_same_v<Target, oryx::DatabaseCommandExecutor>) {
            return registrar;
        } else {
            return events;
        }
    }
};

/// Where a text stands that a statement stores or compares.
enum class Place {
    column, ///< In a column, or nowhere: every text is taken.
    key,    ///< In an index: a text of more than 2,704 bytes is refused with SQLSTATE 54000, and so never there.
    flag,   ///< Its first character in a boolean column, which refuses each of the texts with SQLSTATE 22P02.
};

/// One text argument of one operation.
struct Entry {
    /// "Class::operation(its, parameters) argument", or "... argument.field" for a record's.
    std::string argument;
    /// Which way of calling it, where there are several.
    std::string variant;
    Place place = Place::column;

    /// What stands in the database before the call, beside what is always there; $1 is the text.
    std::vector<std::string> before;
    /// What the call shall do, as the server does it itself; all other rows stay as they are.
    std::vector<std::string> change;
    /// The call, and what it answers.
    std::function<std::string(Library& library, const std::string& text)> call;
    /// What it shall answer; "$1" stands for the text.
    std::string answer = "okay\n";
    /// In place of that, a query of the keys that it shall find, or whose SQLSTATE it shall tell.
    std::string found;
    /// What it shall answer to a text that its place refuses, if not the same.
    std::string refused;
};

using Entries = std::vector<Entry>;

/// What a failure shows of an entry.
inline void PrintTo(const Entry& entry, std::ostream* out)
{
    *out << entry.argument << (entry.variant.empty() ? "" : ", " + entry.variant);
}

template <typename Target>
constexpr const char* kNameOf = nullptr;
template <>
inline constexpr const char* kNameOf<oryx::LocationService> = "LocationService";
template <>
inline constexpr const char* kNameOf<oryx::PresenceService> = "PresenceService";
template <>
inline constexpr const char* kNameOf<oryx::DatabaseCommandExecutor> = "DatabaseCommandExecutor";
template <>
inline constexpr const char* kNameOf<oryx::PresenceDatabaseCommandExecutor> = "PresenceDatabaseCommandExecutor";

/// The whole name of an argument of a class's operation.
template <typename Target>
std::string argumentOf(const char* operationAndArgument)
{
    return std::string(kNameOf<Target>) + "::" + operationAndArgument;
}

/// A field of a record: how it is set, and the column that it is stored in, null if it is not.
template <typename Record>
struct Field {
    const char* name;
    const char* column;
    Place place;
    std::function<void(Record&, const char*)> set;
};

/// What stands in a field's column; a flag is its text's first character.
template <typename Record>
const char* valueOf(const Field<Record>& field)
{
    return field.place == Place::flag ? "left($1, 1)::boolean" : "$1";
}

// What a call answers

/// A result as its status and SQLSTATE.
inline std::string told(const oryx::DatabaseResult& result)
{
    oryx::DatabaseResult brief = result;
    brief.setErrorMessage("");
    return oryx::show(brief) + (result.getSqlState().empty() ? "" : " " + result.getSqlState()) + "\n";
}

/// The same of an executor's operation that answers with a number.
inline std::string told(int number, const oryx::CommandExecutor& executor)
{
    return std::to_string(number) + (executor.getSqlState().empty() ? "" : " " + executor.getSqlState()) + "\n";
}

/// A listing's answer and the records that it gives.
template <typename Record, typename List>
std::string listed(const List& list)
{
    std::vector<Record> records;
    const oryx::DatabaseResult result = list(records);
    return told(result) + oryx::show(records);
}

/// A listing's answer, and what `key` gives of each record, in order.
template <typename Record, typename List, typename Key>
std::string listedKeys(const List& list, const Key& key)
{
    std::vector<Record> records;
    const oryx::DatabaseResult result = list(records);
    std::vector<std::string> keys;
    for (const Record& record : records) {
        keys.push_back(key(record));
    }
    std::sort(keys.begin(), keys.end());
    std::string text = told(result);
    for (const std::string& line : keys) {
        text += line + "\n";
    }
    return text;
}

// The table, by what it is about. What both classes of a server have is a template.

Entries registrationEntries();
Entries registrarEntries();
Entries requestEntries();
Entries publicationEntries();
template <typename Service>
Entries addressMapEntries();
template <typename Executor>
Entries settingEntries();
template <typename Target>
Entries proxyEntries();
template <typename Target>
Entries dialogEntries();
template <typename Target>
Entries watcherEntries();
template <typename Target>
Entries sourceEntries();
template <typename Target>
Entries authorizationEntries();
template <typename Target>
Entries conferenceEntries();
template <typename Target>
Entries provisioningEntries();

Entries allEntries();
/// One entry of each operation that has a text argument: which of them holds the text makes no difference to its memory
/// and its time, and a service's operation goes through that of its executor, so of these two the first is taken. Left
/// out are the entries that call several operations.
Entries oneOfEachOperation();
/// The operations that take no text, as entries whose call does not look at one.
Entries textlessOperations();

/// A text that every place takes, and that no string holds without an allocation.
inline const std::string kPlainText = "text that is too long for the place of a string";
