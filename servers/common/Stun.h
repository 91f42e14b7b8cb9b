#pragma once

namespace oryx::sip {

/// Has the stack answer STUN's Binding requests at its UDP sockets (RFC 5389 section 7.3.1), by which telephones keep
/// their way through a NAT open and learn that it has changed (RFC 5626 section 3.5.2). For all endpoints that are
/// made from then on; throws std::runtime_error where the stack has another server.
void answerStun();

} // namespace oryx::sip
