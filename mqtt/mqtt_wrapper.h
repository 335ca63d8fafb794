// The public interface: the client facade, the records that cross it, and names for MQTT's codes. The only
// header that an application includes.
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

/// One MQTT client: one broker connection at a time, MQTT 3.1.1 or 5.0, over TCP or TLS.
///
/// Order of use: construct, StartClient, any number of requests, StopClient, destroy. StartClient may be
/// called again after StopClient. Every request blocks its caller until the broker has answered or
/// `ConnectOption::timeout` has passed; several threads may issue requests at once.
///
/// `message_cb` and `disconnect_cb` run on the client's receive thread. Inside `message_cb` no
/// acknowledgement can arrive, so a request that needs one is sent and returns `kFailure` at once; QoS 0
/// publishing works there, and so does StopClient (no `disconnect_cb` follows). Deleting the client inside
/// `message_cb` is forbidden. Inside `disconnect_cb` everything is allowed: stopping, restarting, deleting.
///
/// Strings on the wire are at most 65,535 bytes, a packet behind its fixed header at most 131,072: a request
/// beyond that is refused with `kInvalidArgument` before anything is sent (a start with `kFailure`). Errors
/// are logged through syslog. A call that gets no memory throws std::bad_alloc, and nothing else is thrown;
/// the client can be stopped and started again.
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

  /// CONNACK reason codes of MQTT 5.0 (3.2.2.2), and the return codes with which an older broker refuses.
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

  /// A user property (MQTT 5.0, 1.5.7). A pair with an empty key or value is never sent.
  struct PairedString {
    std::string key;  ///< At most 65,535 bytes.
    std::string val;  ///< At most 65,535 bytes.
  };

  /// An outbound message, or the will.
  struct PublishOption {
    std::string topic;        ///< Topic name; empty: Publish fails with `kFailure`.
    bool retain = false;      ///< The broker keeps the message for later subscribers.
    uint8_t qos = 1;          ///< 0, 1 or 2. A higher value is logged, sent as 2 and set to 2 here.
    bool duplicated = false;  ///< DUP: the message was sent before.
    std::string payload;      ///< Any bytes, zeros included; at most 100,000.
  };

  /// Properties of the will; used with MQTT 5.0 alone (3.1.3.2). -1 or empty: not sent.
  struct WillProperties {
    int8_t payload_format_indicator = -1;   ///< 0 bytes, otherwise UTF-8 text.
    int64_t message_expiry_interval = -1;   ///< Seconds, 0 to 4,294,967,295.
    std::string content_type;               ///< Empty: not sent.
    std::string response_topic;             ///< Empty: not sent.
    util::Buffer correlation_data;          ///< Not sent; carried for the application.
    int64_t will_delay_interval = -1;       ///< Seconds, 0 to 4,294,967,295.
    std::list<PairedString> user_property;  ///< Not sent; carried for the application.
  };

  /// The message that the broker publishes when the connection ends without DISCONNECT (3.1.2.5).
  struct LastWill {
    bool enable = false;        ///< Whether a will is sent at all.
    PublishOption msg;          ///< Topic, payload, QoS and retain flag of the will.
    WillProperties properties;  ///< MQTT 5.0.
  };

  /// An inbound message, as `message_cb` receives it.
  struct PublishMessage {
    MqttWrapper* wrapper = nullptr;  ///< The client that received it.
    uint16_t message_id = 0;         ///< Packet identifier; 0 for a QoS 0 message.
    std::string topic;               ///< As the broker sent it: any bytes.
    std::string payload;             ///< Any bytes, zeros included.
  };

  /// What StartClient connects with. A numeric MQTT 5.0 property of -1 is not sent.
  struct ConnectOption {
    int32_t protocol = 1;  ///< 1: MQTT 3.1.1, 2: MQTT 5.0; anything else is refused.
    /// Broker: an IPv4 or IPv6 literal ("fe80::1%eth0" too), or a name. A name's addresses are tried in
    /// order.
    std::string host;
    int32_t port = 0;  ///< Broker's TCP port, 1 to 65535.
    /// Network interface to leave through ("wwan0"); of a name the IPv6 addresses are taken where the
    /// interface has one itself, else IPv4. Empty: whichever interface routes there; of a name IPv4 addresses
    /// only.
    std::string iface_name;
    int32_t timeout = 10;  ///< Seconds that a connect, a send or an acknowledgement may take, up to 2147.
    std::string client_id = "KavelMQTTClient";  ///< 1 to 128 bytes; also the tag of this client's log lines.
    std::string user_name;                      ///< Empty: not sent.
    std::string password;                       ///< Empty: not sent. Printed in clear at LOG_DEBUG.
    int32_t keep_alive = 60;    ///< Seconds without a send until PINGREQ, 0 to 65535; 0: no pings.
    bool clean_session = true;  ///< Start without the broker's memory of this client identifier.
    /// Called on the receive thread for every message; QoS 1 and 2 are acknowledged before the call, and a
    /// QoS 2 message that the broker sends again is delivered again. Exceptions are caught and logged.
    std::function<void(PublishMessage&)> message_cb;
    LastWill lwt;  ///< The will; none unless enabled.
    /// Called on the receive thread, as its last act, when the connection ended by itself; the argument is
    /// `StatusInfo::dis_reason`, never 0. It may still run when StopClient or the destructor has returned on
    /// another thread: what it touches must outlive it.
    std::function<void(MqttWrapper*, int)> disconnect_cb;
    /// Connect over TLS, 1.2 or newer. The broker's certificate is always verified and must bear `host`.
    bool tls = false;
    std::string ca_file;  ///< Trusts this CA file alone; empty: the system's trust store.
    std::string cert;     ///< Client certificate file; empty: none, and `key` is not looked at.
    std::string key;      ///< Client private-key file, not encrypted.
    util::SslWrapper::FileType root_ca_file_type = util::SslWrapper::FileType::kPem;  ///< Of `ca_file`.
    util::SslWrapper::FileType cert_file_type = util::SslWrapper::FileType::kPem;     ///< Of `cert`.
    util::SslWrapper::FileType key_file_type = util::SslWrapper::FileType::kPem;      ///< Of `key`.
    util::SslWrapper::Method ssl_method = util::SslWrapper::Method::kTls;             ///< Versions allowed.
    std::vector<std::string> cipher_lists;     ///< OpenSSL cipher names; empty: the platform's choice.
    int64_t session_expiry_interval = -1;      ///< Seconds, 0 to 4,294,967,295.
    int8_t request_problem_information = -1;   ///< 0 or 1.
    int8_t request_response_information = -1;  ///< 0 or 1.
    int32_t receive_maximum = -1;              ///< 1 to 65535.
    int32_t topic_alias_maximum = -1;          ///< 0 to 65535.
    int64_t maximum_packet_size = -1;          ///< Bytes; StartClient with MQTT 5.0 sets and sends 131072.
    std::list<PairedString> user_property;     ///< MQTT 5.0.
  };

  /// What Subscribe asks for.
  struct SubscribeOption {
    /// Topic filter to requested QoS (0 to 2; a higher value is logged and set to 2 here), sent in key order.
    std::map<std::string, uint8_t> topics;
    int32_t subscription_identifier = 0;    ///< MQTT 5.0: 1 to 268,435,455; below 1: not sent.
    std::list<PairedString> user_property;  ///< MQTT 5.0.
  };

  /// What Unsubscribe asks for.
  struct UnsubscribeOption {
    std::list<std::string> topics;          ///< Topic filters, sent in this order.
    std::list<PairedString> user_property;  ///< MQTT 5.0.
  };

  /// How StopClient takes its leave; MQTT 5.0 (3.14.2). With MQTT 3.1.1 nothing of it is sent.
  struct DisconnectOption {
    int32_t reason_code = 0;                ///< DISCONNECT reason code; 4 asks for the will to be published.
    int64_t session_expiry_interval = -1;   ///< Seconds, 0 to 4,294,967,295; -1: not sent.
    std::string server_reference;           ///< Empty: not sent.
    std::string reason_string;              ///< Empty: not sent.
    std::list<PairedString> user_property;  ///< MQTT 5.0.
  };

  /// MQTT 5.0 properties of an inbound packet. Numbers are 0 and strings empty when the packet bears none.
  struct Properties {
    int64_t session_expiry_interval = 0;             ///< 0x11, seconds
    std::string assigned_client_identifier;          ///< 0x12
    uint32_t server_keep_alive = 0;                  ///< 0x13, seconds
    std::string authentication_method;               ///< 0x15
    util::Buffer authentication_data;                ///< 0x16, not filled
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

  /// The reason code of an acknowledgement that carried none.
  static constexpr int32_t k_no_reason_code = 0xFFFF;

  /// The broker's answer to CONNECT.
  struct ConnectAck {
    bool session_present = false;            ///< The broker remembers this client identifier's session.
    int32_t reason_code = k_no_reason_code;  ///< 0 accepted; else ConnectReturnCode or ConnectReasonCode.
    Properties properties;                   ///< MQTT 5.0.
  };

  /// The broker's answer to SUBSCRIBE.
  struct SubscriptionAck {
    uint16_t message_id = 0;  ///< Packet identifier of the request.
    /// Of the first topic filter: the granted QoS (0 to 2), or 0x80 and above when it was refused.
    int32_t reason_code = k_no_reason_code;
    Properties properties;  ///< MQTT 5.0.
  };

  /// The broker's answer to UNSUBSCRIBE.
  struct UnsubscriptionAck {
    uint16_t message_id = 0;                 ///< Packet identifier of the request.
    int32_t reason_code = k_no_reason_code;  ///< Of the first filter; MQTT 3.1.1 sends none.
    Properties properties;                   ///< MQTT 5.0.
  };

  /// Where the client stands.
  struct StatusInfo {
    /// 0: idle, 1: socket connected, 2: session established, 3: disconnected (DISCONNECT sent, or the
    /// connection ended).
    int32_t status = 0;
    /// MQTT 3.1.1: why the connection ended. 0: it did not, or was stopped; 1: the broker closed it; 2:
    /// socket or protocol error, loss of the network, or the broker's DISCONNECT; 3: keep-alive failure.
    int32_t dis_reason = 0;
    int32_t reason_code = 0;  ///< MQTT 5.0: reason code of the broker's last DISCONNECT; 0 until one arrives.
  };

  /// Throws std::bad_alloc, and nothing else.
  MqttWrapper();
  /// Ends the receive thread, without DISCONNECT: the broker publishes the will. Call StopClient first for an
  /// orderly end. Waits for a StopClient that runs on another thread, and for a StartClient, which gives up
  /// unless CONNECT is out.
  ~MqttWrapper();
  MqttWrapper(const MqttWrapper&) = delete;
  MqttWrapper& operator=(const MqttWrapper&) = delete;

  /// Connects and waits for CONNACK. `ack` may be null; when the broker refuses, it holds the code and the
  /// result is `kFailure`. Blocks up to `timeout` for name, TCP and TLS together, then up to `timeout` for
  /// the answer; a StopClient on another thread ends either at once (`kInvalidArgument` or `kFailure`). Also
  /// `kInvalidArgument`, `kAlreadyStarted`, `kNoAddress`, or a TLS error code.
  Result StartClient(ConnectOption& option, ConnectAck* ack);

  /// Stores options for GetConnectOption alone; a running session does not see them. `kSuccess`.
  Result SetConnectOption(ConnectOption& option);
  /// A copy of the options stored last, by SetConnectOption or StartClient.
  [[nodiscard]] ConnectOption GetConnectOption() const;

  /// Sends DISCONNECT when a session is established, ends the receive thread and closes the connection; a
  /// StartClient that runs on another thread is ended too, and fails.
  /// `option` may be null. `kSuccess` also when there was nothing to stop or another stop is running;
  /// `kNotStarted` when a failed start had left only a socket. Unacknowledged requests on other threads fail.
  Result StopClient(DisconnectOption* option);

  /// Sends a message. QoS 0 returns when the broker's TCP has taken it, QoS 1 after PUBACK, QoS 2 after
  /// PUBCOMP. `kFailure` when that did not come in time: the message may have arrived all the same. Also
  /// `kInvalidArgument`, `kNotConnected`, `kSendFailed`.
  Result Publish(PublishOption& option);

  /// Subscribes and waits for SUBACK. `ack` may be null; look there for the broker's verdict, which does not
  /// change the result. Results as for Publish.
  Result Subscribe(SubscribeOption& option, SubscriptionAck* ack);
  /// Unsubscribes and waits for UNSUBACK; as Subscribe.
  Result Unsubscribe(UnsubscribeOption& option, UnsubscriptionAck* ack);

  /// Sends PINGREQ; with `wait`, returns when PINGRESP has come, or `kFailure` after the time-out.
  Result Ping(bool wait);

  /// User properties of every PUBACK sent from now on, across reconnections (MQTT 5.0).
  Result SetPubAckUserProperties(std::list<PairedString>& user_property);
  /// As SetPubAckUserProperties, for PUBREC.
  Result SetPubRecUserProperties(std::list<PairedString>& user_property);
  /// As SetPubAckUserProperties, for PUBCOMP.
  Result SetPubCompUserProperties(std::list<PairedString>& user_property);

  /// A snapshot; never blocks for the network.
  [[nodiscard]] StatusInfo GetStatusInfo() const;

  /// Names of codes, as MQTT has them; "UNKNOWN" for a value that has none. Any thread.
  static std::string GetConnectReturnCodeInStr(ConnectReturnCode code);
  /// The same by number.
  static std::string GetConnectReturnCodeInStr(int code);
  /// The same of a CONNACK reason code.
  static std::string GetConnectReasonCodeInStr(ConnectReasonCode code);
  /// The same by number.
  static std::string GetConnectReasonCodeInStr(int code);
  /// The same of a packet type.
  static std::string GetMsgTypeInStr(MessageType type);
  /// The same by number.
  static std::string GetMsgTypeInStr(int type);

 private:
  std::unique_ptr<SelfMqttImpl> impl_;
  ConnectOption option_;             // informational; guarded by option_mutex_
  mutable std::mutex option_mutex_;  // several threads may start, set and read at once
};

}  // namespace zeb::mqtt
