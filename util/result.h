// The status that every operation of the library returns. Part of the public interface.
#pragma once

#include <cstdint>

namespace zeb {

/// The outcome of an operation. Any other value is an error code of the platform's TLS calls, passed on
/// unchanged, for example because a certificate could not be loaded.
enum [[nodiscard]] Result : int32_t{
    /// The operation completed.
    kSuccess = 0,
    /// The broker refused the connection, the protocol is not supported, the topic is empty, the subscription
    /// identifier is out of range, no acknowledgement arrived within the time-out, DISCONNECT was already
    /// sent, or the client is disconnected.
    kFailure = 1,
    /// A wait on a condition timed out.
    kTimeout = 3,
    /// The client identifier is invalid, the host cannot be resolved, the broker cannot be reached, a topic
    /// filter is empty, a string exceeds 65,535 bytes, or a payload or packet is too large.
    kInvalidArgument = 11,
    /// A request was made without a connection.
    kNotConnected = 12,
    /// The client has been started and not stopped since, or is being started by another thread.
    kAlreadyStarted = 18,
    /// There was no receive thread to stop, because an earlier StartClient failed before creating it.
    kNotStarted = 19,
    /// The packet could not be written completely.
    kSendFailed = 20,
    /// The broker has no usable address: none for the chosen interface or, without one, no IPv4 address.
    kNoAddress = 21,
};

}  // namespace zeb
