#include <dal/internal/BoundText.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>

namespace oryx {

namespace {

/// The same for a text in every process and release (FNV-1a, 64 bits).
std::string nameOf(std::string_view text)
{
    std::uint64_t hash = 0xcbf29ce484222325U;
    for (const char c : text) {
        hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3U;
    }
    std::array<char, 16> digits{};
    const char* const end = std::to_chars(digits.data(), digits.data() + digits.size(), hash, 16).ptr;
    return std::string("oryx_").append(digits.data(), static_cast<std::size_t>(end - digits.data()));
}

bool holdsNul(std::string_view text)
{
    return text.find('\0') != std::string_view::npos;
}

} // namespace

void BoundText::writeKey(const Statement& statement, std::string& key)
{
    key.clear();
    for (const std::string_view part : statement.parts()) {
        const char* const literal = part.data(); // lives as long as the program
        key.append(reinterpret_cast<const char*>(&literal), sizeof literal);
    }
    if (statement.lists() != nullptr) {
        key += statement.lists()->nameList();
    }
}

BoundText::BoundText(const Statement& statement)
{
    for (const SqlPart& part : statement.parts()) {
        if (statement.lists() != nullptr) {
            bindLists(part, *statement.lists());
        } else {
            bindPart(part);
        }
    }
    m_name = nameOf(m_text);
}

void BoundText::appendPlaceholder()
{
    m_text.append("$").append(std::to_string(++m_parameters));
}

void BoundText::bindPart(std::string_view part)
{
    while (!part.empty()) {
        const std::size_t at = std::min(part.find('\''), part.find(kGap));
        m_text += part.substr(0, at);
        part.remove_prefix(std::min(at, part.size()));
        if (part.starts_with('\'')) {
            part = bindQuoted(part.substr(1));
        } else if (!part.empty()) {
            appendPlaceholder();
            m_pieces.push_back({{}, true, true});
            part.remove_prefix(kGap.size());
        }
    }
}

/// Binds a quoted text, whose opening quote is already taken, and returns what follows it.
std::string_view BoundText::bindQuoted(std::string_view quoted)
{
    const std::size_t end = quoted.find('\'');
    std::string_view content = quoted.substr(0, end);
    quoted.remove_prefix(end + 1);
    if (content.find(kGap) == std::string_view::npos) {
        m_text.append("'").append(content).append("'");
        return quoted;
    }
    appendPlaceholder();
    for (std::size_t gap = content.find(kGap); gap != std::string_view::npos; gap = content.find(kGap)) {
        if (gap > 0) {
            m_pieces.push_back({content.substr(0, gap)});
        }
        m_pieces.push_back({{}, true});
        content.remove_prefix(gap + kGap.size());
    }
    if (!content.empty()) {
        m_pieces.push_back({content});
    }
    m_pieces.back().last = true;
    return quoted;
}

void BoundText::bindLists(const SqlPart& part, const ValueString& lists)
{
    std::string_view text = part;
    if (part.gaps == 2) {
        const std::size_t gap = text.find(kGap);
        m_text.append(text.substr(0, gap)).append(lists.nameList()).append(")");
        text.remove_prefix(gap + kGap.size());
    }
    const std::size_t gap = text.find(kGap);
    m_text.append(text.substr(0, gap)).append("(");
    for (std::size_t i = 0; i < lists.valuePlaces().size(); ++i) {
        m_text += i == 0 ? "" : ",";
        appendPlaceholder();
    }
    m_text.append(")").append(text.substr(gap + kGap.size()));
}

bool BoundText::canBeSent(const Statement& statement)
{
    const auto values = statement.values();
    if (std::any_of(values.begin(), values.end(), [](const SqlValue& value) { return holdsNul(value.text()); })) {
        return false;
    }
    if (statement.lists() == nullptr) {
        return true;
    }
    const auto& places = statement.lists()->valuePlaces();
    return std::none_of(places.begin(), places.end(), [](const auto& place) { return place.cut; });
}

void BoundText::fill(const Statement& statement, Parameters& parameters) const
{
    parameters.values.clear();
    parameters.joined.clear();
    if (statement.lists() != nullptr) {
        fillLists(*statement.lists(), parameters);
        return;
    }
    std::size_t size = m_parameters;
    for (const Piece& piece : m_pieces) {
        size += piece.text.size();
    }
    for (const SqlValue& value : statement.values()) {
        size += value.text().size();
    }
    parameters.joined.reserve(size); // never moves from here on: parameters point into it
    auto value = statement.values().begin();
    bool first = true;
    std::size_t begin = 0;
    for (const Piece& piece : m_pieces) {
        if (first && piece.last) {
            parameters.values.push_back((value++)->parameter());
            continue;
        }
        begin = first ? parameters.joined.size() : begin;
        parameters.joined += piece.value ? (value++)->text() : piece.text;
        first = piece.last;
        if (piece.last) {
            parameters.joined += '\0';
            parameters.values.push_back(parameters.joined.data() + begin);
        }
    }
}

void BoundText::fillLists(const ValueString& lists, Parameters& parameters)
{
    parameters.joined.reserve(lists.valueList().size() + lists.valuePlaces().size());
    for (const detail::ValuePlace& place : lists.valuePlaces()) {
        const std::size_t begin = parameters.joined.size();
        parameters.joined.append(lists.valueList().substr(place.begin, place.size)).append(1, '\0');
        parameters.values.push_back(place.null ? nullptr : parameters.joined.data() + begin);
    }
}

} // namespace oryx
