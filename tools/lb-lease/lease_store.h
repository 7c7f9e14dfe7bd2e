#pragma once

#include <string>

/// The files below /var/db. A reader finds a file as it was or as it is now, never half of it, also
/// when the power goes in between. Calls of several processes wait for each other, by a lock file
/// that nobody but their user can open.
///
/// All return what is wrong, with what mends it; empty when all is well. What stood there stays
/// then. A file that lb-lease did not write, or that is no plain file (a link, say), is never
/// touched: it is somebody else's, likely the database of a DHCP client.
namespace lblease {

/// Makes the directory if it is missing. Writes nothing where the file holds this text already.
std::string write_lease(const std::string& name, const std::string& text);
/// A file that is not there is well.
std::string remove_lease(const std::string& name);
/// Every file that was written for another start of the machine than `boot`; others' files stay,
/// and nothing is said of them.
std::string remove_leases_of_other_boots(const std::string& boot);

}  // namespace lblease
