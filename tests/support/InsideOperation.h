#pragma once

/// Whether the calling thread is inside an operation of a service, an executor or a connection: what the program itself
/// allocates for a call, the records that it makes included, is not the operation's.
bool insideOperation();
