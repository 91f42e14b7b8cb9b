#pragma once

#include <common/Loop.h>
#include <common/Options.h>

#include <functional>

namespace oryx::sip {

/// A program's whole run: options, signals, what the server is, and its end.
///
/// `serve(loop, options, signals)` makes the server and runs the loop until `signals` can be read: SIGTERM or SIGINT
/// has come. Returns the program's exit status; what is thrown is told in a line and ends it with 1.
int serve(int argc, char** argv, const std::function<void(Loop& loop, const Options& options, int signals)>& serve);

/// Tells whoever started the server that it answers.
void tellReady();

} // namespace oryx::sip
