// The command line: the options of each command, those that all commands share, and the checks that look at
// more than one option. Main thread only.
#include "tools/options.h"

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <fstream>
#include <limits>
#include <random>

#include "tools/ending.h"
#include "tools/format.h"

namespace zeb::tools {
namespace {

constexpr size_t kMaxString = 65'535;  // bytes; limit of a string on the wire
constexpr int kMqttPort = 1883;
constexpr int kMqttTlsPort = 8883;
constexpr int kMaxInt = std::numeric_limits<int>::max();
constexpr int kYear = 31'536'000;  // seconds
constexpr char kFormatHelp[] =
    "what to print for each message:\n"
    "%t topic  %p payload  %x payload in hex  %l its length\n"
    "%m packet identifier (0 at QoS 0)  %I local time  %U unix time\n"
    "%% percent sign  and  \\n \\t \\r \\0 \\\\";

constexpr char kFooter[] =
    "\nExit codes:\n"
    "  0  done\n"
    "  1  wrong options, or a file that cannot be read\n"
    "  2  no connection: the broker is unreachable or not trusted, or it refused\n"
    "  3  a message, subscription or ping failed\n"
    "  4  the connection was lost\n"
    "  5  -W passed before there was a connection, or before -C messages came\n"
    "  6  standard output could not be written\n"
    "  128+N  ended by signal N, after DISCONNECT: 130 for Ctrl-C, 143 for SIGTERM, 129 for SIGHUP\n";

/// The options as given, before they are checked and converted.
struct Raw {
  bool tls = false;
  bool keep_session = false;
  std::string version = "311";
  std::string password_file;
  std::string ciphers;
  std::vector<std::string> user_properties;
  int will_qos = 0;
  bool no_newline = false;
  bool verbose = false;
};

// Throws what the parser itself throws.
[[noreturn]] void Refuse(const std::string& text) {
  throw CLI::ValidationError(text, CLI::ExitCodes::ValidationError);
}

/// Leaves out what the help texts say already: ranges, and which options need or exclude each other.
class Help : public CLI::Formatter {
  std::string make_option_opts(const CLI::Option* option) const override {
    return option->get_type_size() == 0 ? "" : " " + option->get_type_name();
  }
};

CLI::Option* Text(CLI::App& app, const std::string& names, std::string& value, const char* type,
                  const std::string& help) {
  return app.add_option(names, value, help)->type_name(type);
}

// Must not be empty: an unset variable in a script must not turn off TLS or the password.
CLI::Option* Name(CLI::App& app, const std::string& names, std::string& value, const char* type,
                  const std::string& help) {
  const auto filled = [](const std::string& given) { return given.empty() ? "must not be empty" : ""; };
  return Text(app, names, value, type, help)->check(filled);
}

CLI::Option* Texts(CLI::App& app, const std::string& names, std::vector<std::string>& values,
                   const char* type, const std::string& help) {
  return app.add_option(names, values, help)->allow_extra_args(false)->type_name(type);
}

CLI::Option* Number(CLI::App& app, const std::string& names, int& value, int least, int most,
                    const std::string& help) {
  const auto decimal = [](const std::string& given) {
    return given.size() > 1 && given[0] == '0' ? "begins with a zero: " + given : "";
  };
  return app.add_option(names, value, help)
      ->check(decimal)
      ->check(CLI::Range(least, most).description(""))
      ->type_name("N");
}

void AddWill(CLI::App& app, Options& options, Raw& raw) {
  auto& will = options.connect.lwt.msg;
  app.option_defaults()->group("Will");
  auto* const topic = Name(app, "--will-topic", will.topic, "TOPIC", "topic of the will");
  Text(app, "--will-payload", will.payload, "TEXT", "payload of the will")->needs(topic);
  Number(app, "--will-qos", raw.will_qos, 0, 2, "QoS of the will: 0, 1 or 2 (0)")->needs(topic);
  app.add_flag("--will-retain", will.retain, "let the broker retain the will")->needs(topic);
}

void AddTls(CLI::App& app, Options& options, Raw& raw) {
  auto& connect = options.connect;
  app.option_defaults()->group("TLS");
  app.add_flag("--tls", raw.tls, "connect over TLS and trust the system's CAs");
  Name(app, "--cafile", connect.ca_file, "FILE", "connect over TLS and trust only this CA file");
  auto* const cert = Name(app, "--cert", connect.cert, "FILE", "client certificate (PEM); implies TLS");
  auto* const key = Name(app, "--key", connect.key, "FILE", "its private key (PEM, not encrypted)");
  cert->needs(key);
  key->needs(cert);
  Name(app, "--ciphers", raw.ciphers, "NAMES", "allowed TLS ciphers, separated by colons");
}

void AddConnection(CLI::App& app, Options& options, Raw& raw) {
  auto& connect = options.connect;
  app.option_defaults()->group("Connection");
  connect.client_id.clear();
  connect.host = "localhost";
  Name(app, "-h,--host", connect.host, "HOST", "name or address of the broker (localhost)");
  Number(app, "-p,--port", connect.port, 1, 65'535, "port of the broker (1883, with TLS 8883)");
  Name(app, "-i,--id", connect.client_id, "ID", "client identifier (zebmqtt- and a random number)");
  Name(app, "-u,--username", connect.user_name, "NAME", "user name");
  auto* const password = Text(app, "-P,--password", connect.password, "TEXT",
                              "password, visible to all users: prefer ZEBMQTT_PASSWORD or --password-file");
  Name(app, "--password-file", raw.password_file, "FILE", "password file; one newline at its end is ignored")
      ->excludes(password);
  Number(app, "-k,--keepalive", connect.keep_alive, 0, 65'535,
         "seconds without traffic before a ping; 0: no pings (60)");
  app.add_flag("-c,--disable-clean-session", raw.keep_session,
               "let the broker keep this client's session; needs -i");
  Text(app, "-V,--protocol-version", raw.version, "311|5", "MQTT 3.1.1 or 5.0 (311)")
      ->check(CLI::IsMember({"311", "5"}).description(""));
  Texts(app, "-D,--user-property", raw.user_properties, "NAME=VALUE",
        "user property of CONNECT and SUBSCRIBE; may be repeated; needs -V 5");
  Name(app, "--iface", connect.iface_name, "NAME", "network interface to connect through");
  Number(app, "--timeout", connect.timeout, 1, 2'147, "seconds to wait for a connection or an answer (10)");
  Number(app, "--retry", options.retry.count, 1, kMaxInt, "connect again, up to N times in a row");
  Number(app, "--retry-time", options.retry.seconds, 1, kYear, "connect again, for up to N seconds");
  app.add_flag("--debug", options.debug, "show the library's log, including the password");
  AddTls(app, options, raw);
  AddWill(app, options, raw);
}

void AddPublish(CLI::App& app, Options& options) {
  Text(app, "-t,--topic", options.message.topic, "TOPIC", "topic to publish to");
  Number(app, "-q,--qos", options.qos, 0, 2, "QoS: 0, 1 or 2 (0)");
  app.add_flag("-r,--retain", options.message.retain, "let the broker retain the message");
  constexpr const char* group = "What to publish (exactly one)";
  Text(app, "-m,--message", options.message.payload, "TEXT", "this text; may be empty")->group(group);
  Text(app, "-f,--file", options.file, "FILE", "this file, as one message")->group(group);
  app.add_flag("-l,--stdin-line", "standard input, one message per line")->group(group);
  app.add_flag("-s,--stdin-file", "standard input, as one message")->group(group);
}

void AddSubscribe(CLI::App& app, Options& options, Raw& raw) {
  Texts(app, "-t,--topic", options.filters, "FILTER", "topic filter; may be repeated");
  Number(app, "-q,--qos", options.qos, 0, 2, "highest QoS for delivery: 0, 1 or 2 (0)");
  Number(app, "-C,--count", options.count, 1, kMaxInt, "end after N messages");
  Number(app, "-W,--seconds", options.seconds, 1, kYear, "end after N seconds");
  app.add_flag("-N,--no-newline", raw.no_newline, "print no newline after a message");
  auto* const verbose = app.add_flag("-v,--verbose", raw.verbose, "print topic and payload, like -F '%t %p'");
  Text(app, "-F,--format", options.format, "TEXT", kFormatHelp)->excludes(verbose);
}

void AddPing(CLI::App& app, Options& options) {
  Number(app, "-C,--count", options.count, 1, kMaxInt, "end after N pings");
  app.add_option("--interval", options.interval_s, "seconds between pings, 0.01 to 3600 (1)")
      ->check([](const std::string& given) {
        const double seconds = std::strtod(given.c_str(), nullptr);  // CLI::Range would accept "nan"
        return seconds >= 0.01 && seconds <= 3'600 ? "" : "is not between 0.01 and 3600: " + given;
      })
      ->type_name("N");
}

void CheckTopic(const char* name, const std::string& topic, bool wildcards) {
  if (topic.empty() || topic.size() > kMaxString) Refuse(std::string(name) + " is needed, 1 to 65535 bytes");
  if (!wildcards && topic.find_first_of("+#") != std::string::npos)
    Refuse(std::string(name) + ": a topic to publish to cannot have wildcards: " + topic);
}

std::string PasswordFrom(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  std::string password(kMaxString + 2, '\0');
  stream.read(password.data(), static_cast<std::streamsize>(password.size()));
  if (!stream.is_open() || stream.bad()) Refuse("--password-file: cannot read " + file);
  password.resize(static_cast<size_t>(stream.gcount()));
  if (!password.empty() && password.back() == '\n') password.pop_back();
  return password;
}

void CheckCredentials(Options& options, const Raw& raw) {
  auto& connect = options.connect;
  const char* const environment = std::getenv("ZEBMQTT_PASSWORD");
  if (!raw.password_file.empty()) {
    connect.password = PasswordFrom(raw.password_file);
  } else if (connect.password.empty() && !connect.user_name.empty() && environment != nullptr) {
    connect.password = environment;
  }
  if (!connect.password.empty() && connect.user_name.empty() && raw.version == "311")
    Refuse("a password needs a user name (-u) in MQTT 3.1.1");
  if (connect.password.size() > kMaxString) Refuse("the password is longer than 65535 bytes");
}

void CheckUserProperties(Options& options, const Raw& raw) {
  if (!raw.user_properties.empty() && raw.version != "5") Refuse("-D needs -V 5");
  for (const std::string& pair : raw.user_properties) {
    const size_t equals = pair.find('=');
    if (equals == 0 || equals == std::string::npos || equals + 1 == pair.size())
      Refuse("-D takes NAME=VALUE, with neither part empty, not " + pair);
    options.connect.user_property.push_back({pair.substr(0, equals), pair.substr(equals + 1)});
  }
}

void CheckConnection(Options& options, const Raw& raw) {
  auto& connect = options.connect;
  if (connect.host.find('/') != std::string::npos)
    Refuse("-h takes a name or an address (-p sets the port, --tls or --cafile TLS), not " + connect.host);
  if (raw.keep_session && connect.client_id.empty())
    Refuse("-c needs -i: the broker keeps the session under the client identifier");
  if (connect.client_id.size() > 128) Refuse("-i: longer than 128 bytes");
  if (connect.client_id.empty()) connect.client_id = "zebmqtt-" + std::to_string(std::random_device{}());
  connect.protocol = raw.version == "5" ? 2 : 1;
  connect.clean_session = !raw.keep_session;
  if (raw.keep_session) connect.session_expiry_interval = 0xFFFF'FFFF;  // it never expires, as in MQTT 3.1.1
  connect.tls = raw.tls || !connect.ca_file.empty() || !connect.cert.empty();
  if (!raw.ciphers.empty() && !connect.tls) Refuse("--ciphers needs --tls or --cafile");
  if (!raw.ciphers.empty()) connect.cipher_lists.push_back(raw.ciphers);
  if (connect.port == 0) connect.port = connect.tls ? kMqttTlsPort : kMqttPort;
  CheckCredentials(options, raw);
  CheckUserProperties(options, raw);
  connect.lwt.enable = !connect.lwt.msg.topic.empty();
  connect.lwt.msg.qos = static_cast<uint8_t>(raw.will_qos);
  if (connect.lwt.enable) CheckTopic("--will-topic", connect.lwt.msg.topic, false);
  if (connect.lwt.msg.payload.size() > kMaxString) Refuse("--will-payload: longer than 65535 bytes");
}

void CheckPublish(const CLI::App& app, Options& options) {
  constexpr std::pair<const char*, Source> sources[] = {
      {"-m", Source::kText}, {"-f", Source::kFile}, {"-l", Source::kLines}, {"-s", Source::kStdin}};
  CheckTopic("-t", options.message.topic, false);
  options.message.qos = static_cast<uint8_t>(options.qos);
  int given = 0;
  for (const auto& [name, source] : sources) {
    if (app.count(name) == 0) continue;
    options.source = source;
    ++given;
  }
  if (given != 1) Refuse("one of -m, -f, -l and -s is needed");
}

void CheckSubscribe(Options& options, const Raw& raw) {
  if (options.filters.empty()) Refuse("-t is needed");
  for (const std::string& filter : options.filters) CheckTopic("-t", filter, true);
  options.newline = !raw.no_newline;
  if (raw.verbose) options.format = "%t %p";
  try {
    (void)Render(options.format, {}, {});
  } catch (const std::invalid_argument& error) {
    Refuse(std::string("-F ") + error.what());
  }
}

}  // namespace

bool ParseOptions(int argc, const char* const* argv, Options& options, int& exit_code) {
  CLI::App app("Publishes to an MQTT broker, subscribes to it, pings it, or shows its status.", "zebmqtt");
  app.set_help_flag("--help", "print this help and exit");
  app.set_version_flag("--version", std::string("zebmqtt " ZEB_VERSION), "print the version and exit");
  app.footer(kFooter);
  app.formatter(std::make_shared<Help>());
  app.get_formatter()->column_width(34);
  Raw raw;
  auto* const pub = app.add_subcommand("pub", "publish one or more messages");
  auto* const sub = app.add_subcommand("sub", "print the messages of one or more topics");
  auto* const ping = app.add_subcommand("ping", "measure how fast the broker answers pings");
  auto* const status = app.add_subcommand("status", "connect and print what the broker says about itself");
  AddPublish(*pub, options);
  AddSubscribe(*sub, options, raw);
  AddPing(*ping, options);
  for (auto* const command : {pub, sub, ping, status}) AddConnection(*command, options, raw);
  try {
    app.parse(argc, argv);
    if (app.get_subcommands().size() != 1) Refuse("a command is needed: pub, sub, ping or status");
    if (pub->parsed()) CheckPublish(*pub, options);
    if (sub->parsed()) CheckSubscribe(options, raw);
    CheckConnection(options, raw);
    options.command = pub->parsed()    ? Command::kPublish
                      : sub->parsed()  ? Command::kSubscribe
                      : ping->parsed() ? Command::kPing
                                       : Command::kStatus;
    return true;
  } catch (const CLI::Success& request) {  // --help, --version
    exit_code = app.exit(request);
  } catch (const CLI::Error& error) {
    std::fprintf(stderr, "zebmqtt: %s\nTry 'zebmqtt --help' for more information.\n", error.what());
    exit_code = kUsage;
  }
  return false;
}

}  // namespace zeb::tools
