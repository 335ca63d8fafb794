// The public interface: the client, the records that it exchanges with the application, and the names of
// MQTT's codes. The only header that an application includes. The client may be called on any thread.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "util/buffer.h"
#include "util/export.h"
#include "util/result.h"
#include "util/ssl_wrapper.h"

namespace zeb::mqtt {

class SelfMqttImpl;

/// One MQTT client. It has at most one broker connection at a time, with MQTT 3.1.1 or 5.0, over TCP or TLS.
///
/// Order of use: construct, StartClient, any number of requests, StopClient, destroy. After StopClient, the
/// client may be started again. Every request blocks its caller until the broker has answered or a time-out
/// has passed (see `ConnectOption::timeout`). Several threads may make requests at once.
///
/// `message_cb` and `disconnect_cb` run on the client's receive thread. While `message_cb` runs, no
/// acknowledgement can arrive. Inside it, a request that needs one is therefore sent and immediately returns
/// `kFailure`. Publishing at QoS 0 works there, and so does StopClient (`disconnect_cb` is not called then).
/// Deleting the client inside `message_cb` is forbidden. Inside `disconnect_cb` everything is allowed:
/// stopping, restarting, deleting.
///
/// A string may have up to 65,535 bytes, and a packet up to 131,072 bytes after its fixed header. A request
/// beyond these limits is not sent and returns `kInvalidArgument` (StartClient returns `kFailure`). Errors
/// are logged through syslog. If there is not enough memory, a call throws std::bad_alloc, and never anything
/// else. The client can then still be stopped and started again.
class ZEB_API MqttWrapper {
 public:
  /// Control packet types (MQTT 5.0, 2.1.2); the values are those on the wire.
  enum class MessageType : int32_t {
    RESERVED = 0,
    CONNECT = 1,
    CONNACK = 2,
    PUBLISH = 3,
    PUBACK = 4,
    PUBREC = 5,
    PUBREL = 6,
    PUBCOMP = 7,
    SUBSCRIBE = 8,
    SUBACK = 9,
    UNSUBSCRIBE = 10,
    UNSUBACK = 11,
    PINGREQ = 12,
    PINGRESP = 13,
    DISCONNECT = 14,
    AUTH = 15,
  };

  /// CONNACK return codes of MQTT 3.1.1 (3.2.2.3).
  enum class ConnectReturnCode : int32_t {
    ACCEPTED = 0,
    UNACCEPTABLE_PROTOCOL_VERSION = 1,
    IDENTIFIER_REJECTED = 2,
    SERVER_UNAVAILABLE = 3,
    BAD_USER_NAME_OR_PASSWORD = 4,
    NOT_AUTHORIZED = 5,
  };

  /// CONNACK reason codes of MQTT 5.0 (3.2.2.2), and the return codes of brokers that only know MQTT 3.1.1.
  enum class ConnectReasonCode : int32_t {
    SUCCESS = 0,
    UNACCEPTABLE_PROTOCOL_VERSION = 1,
    IDENTIFIER_REJECTED = 2,
    SERVER_UNAVAILABLE_V4 = 3,
    BAD_USER_NAME_OR_PASSWORD_V4 = 4,
    NOT_AUTHORIZED_V4 = 5,
    UNSPECIFIED_ERROR = 0x80,
    MALFORMED_PACKET = 0x81,
    PROTOCOL_ERROR = 0x82,
    IMPLEMENTATION_SPECIFIC_ERROR = 0x83,
    UNSUPPORTED_PROTOCOL_VERSION = 0x84,
    CLIENT_IDENTIFIER_NOT_VALID = 0x85,
    BAD_USER_NAME_OR_PASSWORD = 0x86,
    NOT_AUTHORIZED = 0x87,
    SERVER_UNAVAILABLE = 0x88,
    SERVER_BUSY = 0x89,
    BANNED = 0x8A,
    BAD_AUTHENTICATION_METHOD = 0x8C,
    TOPIC_NAME_INVALID = 0x90,
    PACKET_TOO_LARGE = 0x95,
    QUOTA_EXCEEDED = 0x97,
    PAYLOAD_FORMAT_INVALID = 0x99,
    RETAIN_NOT_SUPPORTED = 0x9A,
    QOS_NOT_SUPPORTED = 0x9B,
    USE_ANOTHER_SERVER = 0x9C,
    SERVER_MOVED = 0x9D,
    CONNECTION_RATE_EXCEEDED = 0x9F,
  };

  /// A user property (MQTT 5.0, 1.5.7). Pairs with an empty key or value are not sent.
  struct PairedString {
    std::string key;  ///< At most 65,535 bytes.
    std::string val;  ///< At most 65,535 bytes.
  };

  /// An outgoing message, or the will.
  struct PublishOption {
    std::string topic;        ///< Topic name. If it is empty, Publish returns `kFailure`.
    bool retain = false;      ///< Whether the broker keeps the message for later subscribers.
    uint8_t qos = 1;          ///< 0, 1 or 2. Publish logs a higher value, sets it to 2 here and sends 2.
    bool duplicated = false;  ///< The DUP flag: the message has been sent before.
    std::string payload;      ///< Any bytes, including zeros; at most 100,000, or 65,535 in a will.
  };

  /// Properties of the will (MQTT 5.0, 3.1.3.2). With MQTT 3.1.1 none is sent. -1 or empty: not sent.
  struct WillProperties {
    int8_t payload_format_indicator = -1;   ///< 0: bytes; above 0: UTF-8 text.
    int64_t message_expiry_interval = -1;   ///< Seconds, 0 to 4,294,967,295.
    std::string content_type;               ///< Empty: not sent.
    std::string response_topic;             ///< Empty: not sent.
    util::Buffer correlation_data;          ///< Never sent; only kept for the application.
    int64_t will_delay_interval = -1;       ///< Seconds, 0 to 4,294,967,295.
    std::list<PairedString> user_property;  ///< Never sent; only kept for the application.
  };

  /// The will: the message that the broker publishes if the connection ends without DISCONNECT (3.1.2.5).
  struct LastWill {
    bool enable = false;        ///< Whether there is a will.
    PublishOption msg;          ///< Topic, payload, QoS and retain flag of the will.
    WillProperties properties;  ///< MQTT 5.0 only.
  };

  /// An incoming message, as `message_cb` receives it.
  struct PublishMessage {
    MqttWrapper* wrapper = nullptr;  ///< The client that received it.
    uint16_t message_id = 0;         ///< Packet identifier; 0 for a message at QoS 0.
    std::string topic;               ///< As the broker sent it; may contain any bytes.
    std::string payload;             ///< Any bytes, including zeros.
  };

  /// The settings for StartClient. A numeric MQTT 5.0 property with the value -1 is not sent.
  struct ConnectOption {
    int32_t protocol = 1;  ///< 1: MQTT 3.1.1, 2: MQTT 5.0; StartClient refuses other values.
    /// The broker: an IPv4 or IPv6 address (also with a zone: "fe80::1%eth0"), or a name, whose addresses are
    /// tried in order.
    std::string host;
    int32_t port = 0;  ///< The broker's TCP port, 1 to 65535.
    /// Network interface for the connection, for example "wwan0". If the interface and the name both have
    /// IPv6 addresses, these are used, otherwise the IPv4 addresses. Empty: the routing table chooses the
    /// interface, and only the IPv4 addresses of a name are used.
    std::string iface_name;
    /// Time-out in seconds, at most 2147 (higher values count as 2147). It limits a connect, a send, the wait
    /// for TCP's acknowledgement and the wait for the broker's answer, each by itself; the last may take
    /// twice as long. With 0 or less, StartClient and every request that needs an answer fail immediately.
    int32_t timeout = 10;
    std::string client_id = "KavelMQTTClient";  ///< 1 to 128 bytes; also the tag of this client's log lines.
    std::string user_name;                      ///< Empty: not sent.
    std::string password;                       ///< Empty: not sent. Logged in clear text at LOG_DEBUG.
    int32_t keep_alive = 60;    ///< Seconds after the last send until PINGREQ, 0 to 65535; 0: no pings.
    bool clean_session = true;  ///< Whether the broker discards an earlier session of this client.
    /// Called on the receive thread for every message. QoS 1 and 2 messages are acknowledged before the call.
    /// A QoS 2 message that the broker repeats is delivered again. Exceptions are caught and logged.
    std::function<void(PublishMessage&)> message_cb;
    LastWill lwt;  ///< The will; not sent unless enabled.
    /// Called on the receive thread, as its last action, if the connection ended by itself. The argument is a
    /// value of `StatusInfo::dis_reason`, never 0. The call may still be running after StopClient or the
    /// destructor has returned on another thread, so everything that it uses must live that long.
    std::function<void(MqttWrapper*, int)> disconnect_cb;
    /// Whether to use TLS 1.2 or newer. The broker's certificate is always verified, also against `host`.
    bool tls = false;
    std::string ca_file;  ///< Only certificates in this file are trusted. Empty: the system's store.
    std::string cert;     ///< Client certificate file. Empty: none, and `key` is ignored.
    std::string key;      ///< Private-key file of the client, not encrypted.
    util::SslWrapper::FileType root_ca_file_type = util::SslWrapper::FileType::kPem;  ///< Type of `ca_file`.
    util::SslWrapper::FileType cert_file_type = util::SslWrapper::FileType::kPem;     ///< Type of `cert`.
    util::SslWrapper::FileType key_file_type = util::SslWrapper::FileType::kPem;      ///< Type of `key`.
    util::SslWrapper::Method ssl_method = util::SslWrapper::Method::kTls;             ///< Allowed versions.
    std::vector<std::string> cipher_lists;     ///< OpenSSL cipher names. Empty: the platform's default.
    int64_t session_expiry_interval = -1;      ///< Seconds, 0 to 4,294,967,295.
    int8_t request_problem_information = -1;   ///< 0 or 1.
    int8_t request_response_information = -1;  ///< 0 or 1.
    int32_t receive_maximum = -1;              ///< 1 to 65535.
    int32_t topic_alias_maximum = -1;          ///< 0 to 65535.
    int64_t maximum_packet_size = -1;          ///< Bytes. With MQTT 5.0, StartClient sets it to 131072.
    std::list<PairedString> user_property;     ///< MQTT 5.0.
  };

  /// The topic filters to subscribe to.
  struct SubscribeOption {
    /// Maps each topic filter to the requested QoS, 0 to 2. Subscribe logs a higher value and sets it to 2
    /// here. The filters are sent in the order of their keys.
    std::map<std::string, uint8_t> topics;
    int32_t subscription_identifier = 0;    ///< MQTT 5.0. 1 to 268,435,455; below 1: not sent.
    std::list<PairedString> user_property;  ///< MQTT 5.0.
  };

  /// The topic filters to unsubscribe from.
  struct UnsubscribeOption {
    std::list<std::string> topics;          ///< Topic filters, which are sent in this order.
    std::list<PairedString> user_property;  ///< MQTT 5.0.
  };

  /// The content of the DISCONNECT that StopClient sends with MQTT 5.0 (3.14.2). Ignored with MQTT 3.1.1.
  struct DisconnectOption {
    int32_t reason_code = 0;                ///< DISCONNECT reason code; with 4 the broker publishes the will.
    int64_t session_expiry_interval = -1;   ///< Seconds, 0 to 4,294,967,295; -1: not sent.
    std::string server_reference;           ///< Empty: not sent.
    std::string reason_string;              ///< Empty: not sent.
    std::list<PairedString> user_property;  ///< MQTT 5.0.
  };

  /// MQTT 5.0 properties of an incoming packet. A number that is missing there is 0, a string is empty.
  struct Properties {
    int64_t session_expiry_interval = 0;             ///< 0x11, seconds
    std::string assigned_client_identifier;          ///< 0x12
    uint32_t server_keep_alive = 0;                  ///< 0x13, seconds
    std::string authentication_method;               ///< 0x15
    util::Buffer authentication_data;                ///< 0x16, never filled
    std::string response_information;                ///< 0x1A
    std::string server_reference;                    ///< 0x1C
    std::string reason_string;                       ///< 0x1F
    uint32_t receive_maximum = 0;                    ///< 0x21
    uint32_t topic_alias_maximum = 0;                ///< 0x22
    uint32_t topic_alias = 0;                        ///< 0x23
    uint16_t maximum_qos = 0;                        ///< 0x24
    uint16_t retain_available = 0;                   ///< 0x25
    std::list<PairedString> user_property;           ///< 0x26, in arrival order
    int64_t maximum_packet_size = 0;                 ///< 0x27, bytes
    uint16_t wildcard_subscription_available = 0;    ///< 0x28
    uint16_t subscription_identifier_available = 0;  ///< 0x29
    uint16_t shared_subscription_available = 0;      ///< 0x2A
  };

  /// The reason code if the acknowledgement contained none.
  static constexpr int32_t k_no_reason_code = 0xFFFF;

  /// The broker's answer to CONNECT.
  struct ConnectAck {
    bool session_present = false;            ///< Whether the broker had kept this client's session.
    int32_t reason_code = k_no_reason_code;  ///< 0: accepted; else ConnectReturnCode or ConnectReasonCode.
    Properties properties;                   ///< MQTT 5.0.
  };

  /// The broker's answer to SUBSCRIBE.
  struct SubscriptionAck {
    uint16_t message_id = 0;  ///< Packet identifier of the request.
    /// For the first topic filter: the granted QoS (0 to 2), or 0x80 and above if the broker refused it.
    int32_t reason_code = k_no_reason_code;
    Properties properties;  ///< MQTT 5.0.
  };

  /// The broker's answer to UNSUBSCRIBE.
  struct UnsubscriptionAck {
    uint16_t message_id = 0;                 ///< Packet identifier of the request.
    int32_t reason_code = k_no_reason_code;  ///< For the first filter; MQTT 3.1.1 has none.
    Properties properties;                   ///< MQTT 5.0.
  };

  /// The state of the client.
  struct StatusInfo {
    /// 0: idle, 1: socket connected, 2: session established, 3: disconnected (DISCONNECT has been sent, or
    /// the connection has ended).
    int32_t status = 0;
    /// MQTT 3.1.1: why the connection ended. 0: it has not ended, or was stopped; 1: the broker closed it;
    /// 2: socket or protocol error, loss of the network, or the broker's DISCONNECT; 3: keep-alive failure.
    int32_t dis_reason = 0;
    int32_t reason_code = 0;  ///< MQTT 5.0: reason code of the broker's DISCONNECT; 0 until one arrives.
  };

  /// May throw std::bad_alloc, and nothing else.
  MqttWrapper();
  /// Ends the connection without DISCONNECT, so that the broker publishes the will. Call StopClient first for
  /// an orderly end. Allowed if no other thread is inside Publish, Subscribe, Unsubscribe or Ping. Waits for
  /// StopClient and StartClient calls on other threads. A StartClient that has not sent CONNECT is aborted.
  ~MqttWrapper();
  MqttWrapper(const MqttWrapper&) = delete;
  MqttWrapper& operator=(const MqttWrapper&) = delete;

  /// Connects to the broker and waits for CONNACK. `ack` may be null. If the broker refuses, `ack` holds the
  /// code and the result is `kFailure`. Blocks up to `timeout` for name resolution, TCP and TLS together,
  /// then like any request for the answer. StopClient on another thread ends it immediately
  /// (`kInvalidArgument` or `kFailure`). Other results: `kInvalidArgument`, `kAlreadyStarted`, `kNoAddress`,
  /// or a TLS error code.
  Result StartClient(ConnectOption& option, ConnectAck* ack);

  /// Stores options that only GetConnectOption returns. They do not affect a session. Always `kSuccess`.
  Result SetConnectOption(ConnectOption& option);
  /// Returns a copy of the options that SetConnectOption or StartClient stored last.
  [[nodiscard]] ConnectOption GetConnectOption() const;

  /// Sends DISCONNECT if a session is established, ends the receive thread and closes the connection.
  /// `option` may be null. A StartClient on another thread is aborted and fails. Requests on other threads
  /// that wait for an answer fail, at the latest when their time-out passes. Returns `kSuccess`, even if
  /// there is nothing to stop or another stop is running. `kNotStarted`: an earlier StartClient failed before
  /// its receive thread existed; nothing needs to be done.
  Result StopClient(DisconnectOption* option);

  /// Sends a message. Returns at QoS 1 after PUBACK and at QoS 2 after PUBCOMP, whatever reason codes these
  /// carry. At QoS 0, returns when the broker's TCP has acknowledged the message; if that takes longer than
  /// the time-out, the failure is only logged. `kFailure`: no answer arrived in time, or the session ended;
  /// the message may have arrived anyway. Other results: `kInvalidArgument`, `kNotConnected`, `kSendFailed`.
  Result Publish(PublishOption& option);

  /// Subscribes and waits for SUBACK. `ack` may be null. It holds the broker's decision, which does not
  /// affect the result. Same results as Publish.
  Result Subscribe(SubscribeOption& option, SubscriptionAck* ack);
  /// Unsubscribes and waits for UNSUBACK. `ack` and results are as for Subscribe.
  Result Unsubscribe(UnsubscribeOption& option, UnsubscriptionAck* ack);

  /// Sends PINGREQ. With `wait`, returns after PINGRESP, or `kFailure` after the time-out. Other results as
  /// for Publish.
  Result Ping(bool wait);

  /// Sets the user properties (MQTT 5.0) of all later PUBACKs, even after a reconnect. Always `kSuccess`.
  Result SetPubAckUserProperties(std::list<PairedString>& user_property);
  /// Like SetPubAckUserProperties, for PUBREC.
  Result SetPubRecUserProperties(std::list<PairedString>& user_property);
  /// Like SetPubAckUserProperties, for PUBCOMP.
  Result SetPubCompUserProperties(std::list<PairedString>& user_property);

  /// Returns a snapshot. Never waits for the network.
  [[nodiscard]] StatusInfo GetStatusInfo() const;

  /// Returns the name of an MQTT 3.1.1 return code, or "UNKNOWN" for a value without a name. Any thread.
  static std::string GetConnectReturnCodeInStr(ConnectReturnCode code);
  /// The same for a number.
  static std::string GetConnectReturnCodeInStr(int code);
  /// The same for a CONNACK reason code.
  static std::string GetConnectReasonCodeInStr(ConnectReasonCode code);
  /// The same for a number.
  static std::string GetConnectReasonCodeInStr(int code);
  /// The same for a packet type.
  static std::string GetMsgTypeInStr(MessageType type);
  /// The same for a number.
  static std::string GetMsgTypeInStr(int type);

 private:
  std::unique_ptr<SelfMqttImpl> impl_;
  ConnectOption option_;             // for GetConnectOption; guarded by option_mutex_
  mutable std::mutex option_mutex_;  // several threads may start the client, set and read at once
};

}  // namespace zeb::mqtt
