#pragma once

#include <string>
#include <string_view>

#include <Hashtable.h>

/// Fills a template with the values of named variables.
///
/// A variable is the marker followed by its name: the longest run of ASCII letters ("$user"), or any text in braces
/// ("${user}", needed where a letter follows).
class VariableSubstitution {
public:
    /// Replaces each variable of `text` by its value, once, from left to right: a value is not searched for variables.
    ///
    /// `result` holds the outcome in place of its old content; `text` may be a view of it. A name that is not among the
    /// variables, a brace that is not closed, a marker without a name and an empty marker leave the text as it stands.
    static void subst(std::string_view text, std::string& result, const Hashtable<std::string>& variables,
                      std::string_view marker);
};
