// How each outage looks to the caller: breaks the test's own server in every way that docs/failures.md tells of, asks,
// and copies that document from standard input to standard output with the answers in its tables.
//
// A table stands behind a line "<!-- NAME -->" and ends with an empty line. Its first columns are the operations and
// what they were answered; what stands in further ones is copied, from the row that begins with the same operations.

#include "failures/Outages.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <map>
#include <regex>
#include <string>
#include <vector>

namespace {

using failures::Provoked;

struct Table {
    std::string heads;
    std::vector<std::vector<std::string>> rows; // the operations, and a cell for each column
};

/// Operations that are answered alike share a row.
void addRow(Table& table, const std::string& operation, const std::vector<std::string>& cells)
{
    for (std::vector<std::string>& row : table.rows) {
        if (std::equal(row.begin() + 1, row.end(), cells.begin(), cells.end())) {
            row.front() += ", " + operation;
            return;
        }
    }
    table.rows.push_back({operation});
    table.rows.back().insert(table.rows.back().end(), cells.begin(), cells.end());
}

const std::regex kRefusal(R"x("connection to server at \.\.\. failed: ([^;]*)"(?=;|$))x");

/// Why there is no new connection is told in a table of its own.
std::string brief(const std::string& answer)
{
    return std::regex_replace(answer, kRefusal, "the refusal");
}

Table waysOf(const failures::Outage& outage, const Provoked& found)
{
    Table table{"| | plain | bound |", {}};
    for (std::size_t i = 0; i < outage.operations.size(); ++i) {
        addRow(table, outage.operations[i].name, {brief(found.plain[i]), brief(found.bound[i])});
    }
    return table;
}

/// What each refusal says; it is answered as one by a server that cannot be reached.
void addRefusal(Table& table, const failures::Outage& outage, const Provoked& found)
{
    std::smatch words;
    const bool refused = std::regex_search(found.plain.front(), words, kRefusal); // of `connect`
    addRow(table, outage.name, {refused ? words.str(1) : found.plain.front()});
}

/// An answer without its words, and once where that makes several of them alike.
std::string withoutWords(const std::string& answer)
{
    static const std::regex kWords(R"x((, no text|,? "[^;]+")(?=;|$))x");
    std::string text = std::regex_replace(answer, kWords, "");
    const std::size_t then = text.find("; then ");
    return then != std::string::npos && text.substr(0, then) == text.substr(then + 7) ? text.substr(0, then) : text;
}

std::string inBothWays(const Provoked& found, std::size_t i)
{
    const std::string plain = withoutWords(found.plain[i]);
    const std::string bound = withoutWords(found.bound[i]);
    return plain == bound ? plain : "plain: " + plain + "<br>bound: " + bound;
}

Table misleading(failures::Scene& scene)
{
    std::vector<Provoked> columns;
    for (const failures::Outage& outage : failures::misleadingOutages(scene)) {
        columns.push_back(provoke(scene, outage));
    }
    Table table{"| | the server is gone | a statement is refused |", {}};
    const std::vector<failures::Operation> operations = failures::misleading();
    for (std::size_t i = 0; i < operations.size(); ++i) {
        table.rows.push_back({operations[i].name, inBothWays(columns[0], i), inBothWays(columns[1], i)});
    }
    return table;
}

/// The cells of a table's line, without the blanks around them.
std::vector<std::string> cellsOf(const std::string& line)
{
    std::vector<std::string> cells;
    for (std::size_t begin = 1, end = 0; (end = line.find('|', begin)) != std::string::npos; begin = end + 1) {
        const std::string cell = line.substr(begin, end - begin);
        const std::size_t from = cell.find_first_not_of(' ');
        cells.push_back(from == std::string::npos ? "" : cell.substr(from, cell.find_last_not_of(' ') - from + 1));
    }
    return cells;
}

/// A table, and behind its columns those of the table as it was.
void print(const Table& table, const std::vector<std::string>& before)
{
    const std::size_t columns = cellsOf(table.heads).size();
    std::map<std::string, std::string> further;
    for (const std::string& line : before) {
        const std::vector<std::string> cells = cellsOf(line);
        for (std::size_t i = columns; i < cells.size(); ++i) {
            further[cells.front()] += " " + cells[i] + " |";
        }
    }
    const auto printLine = [&](const std::string& operations, const std::string& line) {
        std::cout << line << further[operations] << '\n';
    };
    printLine(before.empty() ? "" : cellsOf(before.front()).front(), table.heads);
    std::string rule = "|";
    for (std::size_t i = 0; i < columns; ++i) {
        rule += " --- |";
    }
    printLine("---", rule);
    for (const std::vector<std::string>& row : table.rows) {
        std::string line = "|";
        for (const std::string& cell : row) {
            line += " " + cell + " |";
        }
        printLine(row.front(), line);
    }
}

std::map<std::string, Table> allTables()
{
    failures::Scene scene;
    std::map<std::string, Table> tables;
    Table& refusals = tables["refusals"];
    refusals.heads = "| no new connection, because the server is | the refusal |";
    tables["misleading"] = misleading(scene); // before anybody has read the process's domain list
    for (const failures::Outage& outage : failures::outages(scene)) {
        const Provoked found = provoke(scene, outage);
        tables[outage.name] = waysOf(outage, found);
        if (outage.name == "unreachable") {
            addRefusal(refusals, outage, found);
        }
    }
    for (const failures::Outage& outage : failures::refusals(scene)) {
        const Provoked found = provoke(scene, outage);
        addRefusal(refusals, outage, found);
        if (waysOf(outage, found).rows != tables["unreachable"].rows) {
            tables[outage.name] = waysOf(outage, found); // which the document has no place for
        }
    }
    return tables;
}

/// The name in a line "<!-- NAME -->"; empty for another.
std::string nameIn(const std::string& line)
{
    const std::string begin = "<!-- ";
    const std::string end = " -->";
    return line.starts_with(begin) && line.ends_with(end)
               ? line.substr(begin.size(), line.size() - begin.size() - end.size())
               : "";
}

/// Copies the document with the tables as found. A table that it lacks, or that nobody provokes, is an error.
bool copyDocument(std::map<std::string, Table> tables)
{
    for (std::string line; std::getline(std::cin, line);) {
        std::cout << line << '\n';
        const std::string name = nameIn(line);
        if (name.empty()) {
            continue;
        }
        std::vector<std::string> before;
        while (std::getline(std::cin, line) && !line.empty()) {
            before.push_back(line);
        }
        const auto found = tables.extract(name);
        if (found.empty()) {
            std::cerr << "nobody provokes \"" << name << "\"\n";
            return false;
        }
        print(found.mapped(), before);
        std::cout << '\n';
    }
    for (const auto& [name, table] : tables) {
        std::cerr << "the document has no table \"" << name << "\"\n";
    }
    return tables.empty();
}

} // namespace

int main()
{
    try {
        server::port(); // the server's own, before the services get the proxy's
        setenv("PGSERVICE", "oryx", 1);
        setenv("PGSSLMODE", "disable", 1);
        return copyDocument(allTables()) ? EXIT_SUCCESS : EXIT_FAILURE;
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "failures: %s\n", failure.what());
        return EXIT_FAILURE;
    }
}
