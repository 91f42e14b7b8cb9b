#pragma once

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

/// A row with a value in every column that the library writes or reads, as SQL.
class Row {
public:
    using Columns = std::vector<std::pair<std::string, std::string>>;

    Row(std::string table, Columns columns) : m_table(std::move(table)), m_columns(std::move(columns)) {}

    /// The same row with another value in a column; null is the column of what is not stored, and changes none.
    Row with(const char* column, const std::string& value = "$1") const
    {
        Row changed = *this;
        for (auto& [name, held] : changed.m_columns) {
            if (column != nullptr && name == column) {
                held = value;
                return changed;
            }
        }
        if (column != nullptr) {
            throw std::invalid_argument(m_table + " has no column " + column + " here");
        }
        return changed;
    }

    /// The statement that adds it.
    std::string insert() const
    {
        std::string names;
        std::string values;
        for (const auto& [name, value] : m_columns) {
            names += (names.empty() ? "" : ", ") + name;
            values += (values.empty() ? "" : ", ") + value;
        }
        return "INSERT INTO " + m_table + " (" + names + ") VALUES (" + values + ")";
    }
    /// The statement that gives a row that is there these values.
    std::string update(const std::string& condition) const
    {
        std::string assignments;
        for (const auto& [name, value] : m_columns) {
            assignments += (assignments.empty() ? "" : ", ") + name + " = " + value;
        }
        return "UPDATE " + m_table + " SET " + assignments + " WHERE " + condition;
    }

private:
    std::string m_table;
    Columns m_columns;
};
