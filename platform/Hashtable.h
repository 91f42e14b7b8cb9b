#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

/// Values by name. A value belongs to the table; looking one up allocates nothing. Used by one thread at a time.
/// \ingroup platform
template <typename Value>
class Hashtable {
public:
    /// Gives the key a value, in place of the one it already has.
    void put(std::string_view key, Value value)
    {
        if (const auto found = m_values.find(key); found != m_values.end()) {
            found->second = std::move(value);
        } else {
            m_values.emplace(key, std::move(value));
        }
    }

    /// The key's value, or null; valid until the key is removed.
    const Value* get(std::string_view key) const
    {
        const auto found = m_values.find(key);
        return found == m_values.end() ? nullptr : &found->second;
    }

    /// True if the key has a value.
    bool containsKey(std::string_view key) const { return m_values.contains(key); }

    /// Removes a key and its value. True if there was such a key.
    bool remove(std::string_view key)
    {
        const auto found = m_values.find(key);
        if (found == m_values.end()) {
            return false;
        }
        m_values.erase(found);
        return true;
    }

    /// Removes every key.
    void clear() { m_values.clear(); }
    /// The number of keys.
    std::size_t size() const { return m_values.size(); }

private:
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view key) const { return std::hash<std::string_view>()(key); }
    };

    std::unordered_map<std::string, Value, Hash, std::equal_to<>> m_values;
};
