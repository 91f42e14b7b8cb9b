#include <util/RegExp.h>

#include <util/internal/RequiredText.h>

#include <Tracer.h>

#include <cstring>
#include <new>

namespace oryx {

namespace {

/// One for all expressions, so that their header needs no header of the suite's.
Tracer tracer("RegEx");

/// A text that memory did not suffice for has not been judged: it is not one that does not match.
bool found(int outcome)
{
    if (outcome == REG_ESPACE) {
        throw std::bad_alloc();
    }
    return outcome == 0;
}

} // namespace

RegExp::~RegExp()
{
    free();
}

bool RegExp::compile(const char* expr, bool ignoreCase)
{
    free();
    if (expr != nullptr) {
        tracer.prn("compiling '%s'", expr);
        m_pattern = expr;
    }
    // A dial plan's patterns hold the digits that tell them apart. A glance at those spares most texts the automaton;
    // thousands of automatons do not fit the processor's caches.
    m_required = ignoreCase ? "" : requiredText(m_pattern);
    const int outcome =
        expr != nullptr ? regcomp(&m_regex, expr, REG_EXTENDED | (ignoreCase ? REG_ICASE : 0)) : REG_BADPAT;
    m_compiled = outcome == 0;
    m_lacksMemory = outcome == REG_ESPACE;
    tracer.prn(m_compiled ? "compile ok" : "compile failed");
    return valid();
}

bool RegExp::match(const char* text)
{
    if (text != nullptr) {
        tracer.prn("checking '%s' for match on %s", text, m_pattern.c_str());
    }
    if (!valid()) {
        tracer.prn("match failed, invalid regex");
        return false;
    }
    const bool matches = text != nullptr && std::strstr(text, m_required.c_str()) != nullptr &&
                         found(regexec(&m_regex, text, 0, nullptr, 0));
    tracer.prn(matches ? "match found" : "not a match");
    return matches;
}

void RegExp::free()
{
    m_lacksMemory = false;
    if (m_compiled) {
        m_compiled = false;
        regfree(&m_regex);
    }
}

} // namespace oryx
