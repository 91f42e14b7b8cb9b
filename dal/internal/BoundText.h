#pragma once

#include <dal/internal/Statement.h>

#include <string>
#include <string_view>
#include <vector>

namespace oryx {

/// A statement's values as libpq takes them. Kept from statement to statement, so that filling it allocates nothing.
struct Parameters {
    std::vector<const char*> values; // null: SQL NULL; each ends in a NUL
    std::string joined;              // what the caller's texts do not hold as it is sent
};

/// A statement's text with $1, $2, ... in the places of its values, and which of them make up each parameter.
///
/// A quoted text with values in it is one parameter: '{}' the value, '%%{}%%' the value with what stands around it. A
/// "{}" outside quotes is a parameter too. Made once per statement text and connection.
class BoundText {
public:
    /// Writes what tells statements apart: those with the same key have the same text.
    static void writeKey(const Statement& statement, std::string& key);

    explicit BoundText(const Statement& statement);

    /// The name it is prepared under: the same for the same text, whatever process prepares it.
    const std::string& name() const { return m_name; }
    const std::string& text() const { return m_text; }
    /// Whether no value holds a NUL, which no parameter can.
    static bool canBeSent(const Statement& statement);
    /// Fills in the parameters.
    void fill(const Statement& statement, Parameters& parameters) const;

private:
    /// A piece of a parameter: a fixed text, or the next value.
    struct Piece {
        std::string_view text;
        bool value = false;
        bool last = false; // of its parameter
    };

    void bindPart(std::string_view part);
    std::string_view bindQuoted(std::string_view quoted);
    void bindLists(const SqlPart& part, const ValueString& lists);
    void appendPlaceholder();
    static void fillLists(const ValueString& lists, Parameters& parameters);

    std::string m_text;
    std::string m_name;
    std::vector<Piece> m_pieces;
    std::size_t m_parameters = 0;
};

} // namespace oryx
