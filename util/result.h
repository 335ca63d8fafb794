// The status that every operation of the library returns. Part of the public interface.
#pragma once

#include <cstdint>

namespace zeb {

/// Outcome of an operation; 0 is success. Values that are not named here come unchanged from the
/// platform's TLS calls (a certificate that cannot be loaded, for instance).
enum [[nodiscard]] Result : int32_t{
    /// The operation completed.
    kSuccess = 0,
    /// Connect error, empty topic, refused subscription identifier, no acknowledgement within the
    /// time-out, DISCONNECT already sent, or a client that is already disconnected.
    kFailure = 1,
    /// A wait on a condition timed out.
    kTimeout = 3,
    /// Invalid client identifier, unsupported protocol, host not resolvable, broker not reachable, no
    /// topic, a string above 65,535 bytes, or a packet larger than a buffer.
    kInvalidArgument = 11,
    /// A request was made while no connection exists.
    kNotConnected = 12,
    /// The client was started before and not stopped since.
    kAlreadyStarted = 18,
    /// The client's receive thread was to be stopped while none existed.
    kNotStarted = 19,
    /// The socket accepted fewer bytes than the packet holds.
    kSendFailed = 20,
    /// No usable address for the broker on the chosen interface.
    kNoAddress = 21,
};

}  // namespace zeb
