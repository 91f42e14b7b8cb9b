// By itself, so that all else compiles with a library that has no bound statements yet (bench/compare).

#include "Library.h"

#include <dal/SessionOptions.h>

namespace peers {

std::unique_ptr<Contender> makeBound(const Database& database)
{
    oryx::SessionOptions options;
    options.statements = oryx::SessionOptions::Statements::bound;
    auto library = std::make_unique<Library>();
    library->location().setSessionOptions(options);
    library->presence().setSessionOptions(options);
    library->connect(database);
    return library;
}

} // namespace peers
