// The number of the zone that is in force, which tells whether what was learned of a zone still
// holds.
#ifndef SUPPORT_TIME_ZONENUMBER_H
#define SUPPORT_TIME_ZONENUMBER_H

#include <cstdint>
#include <mutex>

namespace VarnSupport {

// Held while the system is asked, and across a fork: the lock that the system keeps its zone behind
// would stay locked for ever in a child that is forked meanwhile.
extern std::mutex zoneLock;

// A changed TZ makes a new number, as does a replaced file of the zone that has no name, within a
// second; 0 for a zone of which nothing may be known. Takes zoneLock at times.
std::uint64_t zoneNumber();

}  // namespace VarnSupport

#endif
