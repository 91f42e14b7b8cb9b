#pragma once

namespace oryx {

/// Tells the operator, as failures on the channel "oryx", what of a database URI does not count and what to set
/// instead, and what makes libpq misread the connection string. Never shows a text of the caller's: any may hold a
/// password.
void tellWhatIsIgnored(const char* uri, const char* user);

} // namespace oryx
