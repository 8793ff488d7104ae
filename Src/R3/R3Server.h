// An inside view of the running console, for the tests.
#pragma once

namespace Qelvar::Corvane {

/// The connected console's output queue: bytes queued now, the most ever queued and the
/// capacity, in bytes. False when no console runs or no one is connected.
bool r3_output_state(unsigned int* queued, unsigned int* peak, unsigned int* capacity);

}  // namespace Qelvar::Corvane
