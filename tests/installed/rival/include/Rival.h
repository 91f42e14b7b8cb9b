#pragma once

// Classes of a program that are named like those of the suite's utilities and are something else. Self-contained, so
// that a header which compiles after this one stands on its own.

template <typename Value>
class Hashtable;

class Crypt;
class StringTokenizer;
class VariableSubstitution;

class Tracer {
public:
    explicit Tracer(int channel);
    virtual ~Tracer();

private:
    int m_lines[64];
};

class Trace;
enum class TraceKind { none };
class RegExp;
class AddressMap;
