#pragma once

#include <dal/QueryResult.h>
#include <dal/internal/Memory.h>
#include <dal/internal/Number.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <string>
#include <vector>

namespace oryx {

/// Room for so many more records in one step, however often a caller's vector is added to.
template <typename Record>
void makeRoom(std::vector<Record>& records, int more)
{
    const std::size_t needed = records.size() + static_cast<std::size_t>(more);
    if (needed > records.capacity()) {
        records.reserve(std::max(needed, 2 * records.capacity()));
    }
}

/// One row of a result, read by column; SQL NULL leaves what the caller already has.
class Row {
public:
    Row(const QueryResult& result, int row) : m_result(result), m_row(row) {}

    /// The column's text, null for SQL NULL (which the records' setters ignore). Owned by the result.
    const char* text(int column) const
    {
        const char* const value = m_result.getValue(m_row, column);
        const bool null = value == nullptr || (*value == '\0' && m_result.isNull(m_row, column));
        return null ? nullptr : value;
    }
    /// The column's text, empty for SQL NULL.
    std::string string(int column) const
    {
        const char* const value = m_result.getValue(m_row, column);
        return value != nullptr ? value : "";
    }
    /// A whole number, held to the limits of an int on every platform.
    int integer(int column, int whenNull) const
    {
        const char* const value = text(column);
        return value != nullptr ? leadingInt(value) : whenNull;
    }
    /// Seconds since the epoch, or a sequence number.
    long number(int column, long whenNull) const
    {
        const char* const value = text(column);
        return value != nullptr ? std::strtol(value, nullptr, 10) : whenNull;
    }
    /// A version, as far as an unsigned long reaches.
    unsigned long unsignedNumber(int column, unsigned long whenNull) const
    {
        const char* const value = text(column);
        return value != nullptr ? std::strtoul(value, nullptr, 10) : whenNull;
    }
    /// A database boolean: true for a text that begins with 't'.
    bool flag(int column, bool whenNull) const
    {
        const char* const value = text(column);
        return value != nullptr ? *value == 't' : whenNull;
    }

    int index() const { return m_row; }

private:
    const QueryResult& m_result;
    int m_row;
};

/// Has a record made of every row of a result, in the rows' order, with room for all of them; or of none, when memory
/// runs out.
template <typename Record, typename Append>
void forEachRow(const QueryResult& result, std::vector<Record>& records, Append append)
{
    addAllOrNone(records, [&] {
        const int rows = result.rows();
        makeRoom(records, rows);
        for (int i = 0; i < rows; ++i) {
            append(Row(result, i));
        }
    });
}

/// The same in the place of the records that are there.
template <typename Record, typename Append>
void replaceByRows(const QueryResult& result, std::vector<Record>& records, Append append)
{
    std::vector<Record> read;
    forEachRow(result, read, [&](const Row& row) { append(read, row); });
    records.swap(read);
}

} // namespace oryx
