#pragma once

#include <dal/LiveBindings.h>
#include <dal/internal/Frame.h>

#include <span>
#include <string>

/// \file
/// The rows in which the schema answers about live bindings.

namespace oryx {

/// An address of record, told by its key, or by handle and domain.
struct AddressOfRecord {
    int key = 0;
    const char* handle = nullptr; // null: by key
    const char* domain = nullptr;
};

/// An answer about the bindings of an address of record.
struct BindingsFound {
    std::string outcome; // the schema's word
    BindingSet set;
};

/// Reads such rows.
void readBindings(const QueryResult& result, BindingsFound& found);
/// Traces statements that give such rows.
void traceStatements(const Frame& frame, std::span<const Statement> statements);
/// Traces a statement that gives such rows, and runs it: okay, connection or query error.
DatabaseResult fetchBindings(Frame& frame, const Statement& statement, BindingsFound& found);
/// The bindings of an address of record; its outcome is "done", "unknown" or "inactive".
DatabaseResult fetchBindings(Frame& frame, const AddressOfRecord& address, BindingsFound& found);
/// The bindings of a contact set, whoever it belongs to; none of one that is not there.
DatabaseResult fetchBindings(Frame& frame, int csid, BindingsFound& found);

} // namespace oryx
