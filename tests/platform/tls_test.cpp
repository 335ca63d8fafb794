// The client socket over TLS, against peers on loopback. Every wait ends at a deadline.
#include <gtest/gtest.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <syslog.h>

#include <csignal>
#include <functional>

#include "tests/support/loopback.h"
#include "tests/support/system.h"
#include "tests/support/temp_files.h"

namespace zeb::test {
namespace {

using util::SslWrapper;
namespace fs = std::filesystem;
using Type = SslWrapper::FileType;
using Method = SslWrapper::Method;
using Serve = std::function<void(SSL*)>;

void Echo(SSL* ssl) {
  char data[4096];
  for (int i = 1; SSL_write(ssl, data, SSL_read(ssl, data, sizeof data)) > 0; ++i)
    if (i % 8 == 0) SSL_key_update(ssl, SSL_KEY_UPDATE_REQUESTED);  // TLS 1.2 has none
}

/// Serves one connection on a thread of its own: the handshake, if it has a certificate, then `serve`.
struct Server {
  Server(const TempFiles& files, const std::string& name, int newest = 0, Serve then = Echo)
      : patient(name == "patient"), serve(std::move(then)) {
    SSL_CTX_use_certificate_chain_file(ctx.get(), files.Path(name + ".pem").c_str());
    SSL_CTX_use_PrivateKey_file(ctx.get(), files.Path(name + ".key.pem").c_str(), SSL_FILETYPE_PEM);
    SSL_CTX_load_verify_locations(ctx.get(), files.Path("ca.pem").c_str(), nullptr);
    SSL_CTX_set_verify(ctx.get(), SSL_VERIFY_PEER, nullptr);  // asks for a certificate, needs none
    SSL_CTX_set_num_tickets(ctx.get(), 50);
    SSL_CTX_set_max_proto_version(ctx.get(), newest);
    done = std::async(std::launch::async, [this] { Run(); });
  }
  void Run() {
    sigset_t all;  // the client, not the server, is under test
    sigfillset(&all);
    ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
    const util::ScopedFd peer = listener.Accept();
    const bool mute = SSL_CTX_get0_certificate(ctx.get()) == nullptr;
    char hello[4096];
    while (mute && ::recv(peer.get(), hello, sizeof hello, 0) > 0 && patient) continue;
    const std::shared_ptr<SSL> ssl(SSL_new(ctx.get()), SSL_free);
    SSL_set_fd(ssl.get(), peer.get());
    if (mute || SSL_accept(ssl.get()) != 1) return;
    cipher = SSL_get_cipher_name(ssl.get());
    if (const char* name = SSL_get_servername(ssl.get(), TLSEXT_NAMETYPE_host_name)) client_wants = name;
    client_known = SSL_get0_peer_certificate(ssl.get()) != nullptr;  // which the store vouches for
    serve(ssl.get());
    told_of_end = (SSL_get_shutdown(ssl.get()) & SSL_RECEIVED_SHUTDOWN) != 0;
  }

  const Listener listener;
  const bool patient;  // waits for the client's end
  const Serve serve;
  const std::shared_ptr<SSL_CTX> ctx{SSL_CTX_new(TLS_server_method()), SSL_CTX_free};
  std::string cipher, client_wants;  // these and the next: once it is done
  bool client_known = false, told_of_end = false;
  std::future<void> done;  // last: its end waits for the thread
};

/// Passes a connection on, one byte at a time.
void Trickle(const Listener& front, const std::string& path) {
  const util::ScopedFd near = front.Accept();
  const auto far = Connect(path);
  const auto pump = [](int from, int to) {
    const int on = 1;
    ::setsockopt(to, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    for (char byte = 0; AwaitEvent(from, POLLIN) && ::recv(from, &byte, 1, 0) == 1;)
      if (!AwaitEvent(to, POLLOUT) || ::send(to, &byte, 1, MSG_NOSIGNAL) != 1) return;
  };
  const auto back = std::async(std::launch::async, pump, far->GetFd(), near.get());
  pump(near.get(), far->GetFd());
  far->Shutdown();
}

class Tls : public testing::Test {
 protected:
  Tls() {
    files.MakeIdentity("ca", "ca");
    files.MakeIdentity("broker", "ca", "DNS:broker.test,IP:127.0.0.1");
    files.MakeIdentity("client", "ca", "DNS:client");
  }

  /// Files, declared as what their names end in, and what may be negotiated.
  struct Setup {
    std::string ca = "ca.pem", certificate = "client.pem", key = "client.key.pem";  // no ca: the system's
    std::string ciphers = "DEFAULT:TLS_AES_128_GCM_SHA256";
    Method method = Method::kTls;
  };
  std::shared_ptr<SslWrapper> Settings(const Setup& setup, bool good = true) {
    auto settings = std::make_shared<SslWrapper>(false, setup.method);
    const auto type = [](const fs::path& n) { return n.extension() == ".der" ? Type::kDer : Type::kPem; };
    bool all = setup.ca.empty() || settings->SetRootCaFile(files.Path(setup.ca), type(setup.ca)) == 0;
    all &= settings->SetCertAndKeyFile(files.Path(setup.certificate), files.Path(setup.key),
                                       type(setup.certificate), type(setup.key)) == 0;
    EXPECT_EQ(settings->SetCipherLists({setup.ciphers}) == 0 && all, good);
    return settings;
  }
  static void ExpectOneError(const LogCapture& log, const std::string& reason) {
    ASSERT_EQ(log.Lines().size(), 1U);
    EXPECT_EQ(log.Lines()[0].priority, LOG_ERR);
    EXPECT_NE(log.Lines()[0].text.find(reason), std::string::npos) << log.Lines()[0].text;
  }

  const TempFiles files;
};

TEST_F(Tls, ThePeerIsVerifiedAndARefusalSaysWhyInOneLine) {
  files.MakeIdentity("middle");
  files.MakeIdentity("chained", "middle", "DNS:broker.test");
  files.MakeIdentity("expired", "ca", "DNS:broker.test", -1);
  files.MakeIdentity("lone", "lone", "DNS:broker.test");
  files.Run("cat middle.pem >>chained.pem; cat client.pem ca.pem >bundle.pem");
  const Setup any, chained{"ca.pem", "chained.pem", "chained.key.pem"};
  const Setup rsa_only{any.ca, any.certificate, any.key, "ECDHE-RSA-AES128-GCM-SHA256"};
  const Setup newest{any.ca, any.certificate, any.key, any.ciphers, Method::kTls1_3};
  const struct {
    std::string server, host;
    Setup setup;
    const char* reason = nullptr;    // null: connects
    const char* name = "";           // by which the server hears itself called
  } cases[] = {{"broker", "", any},  // by the address connected to
               {"broker", "Broker.Test.", {"bundle.pem"}, nullptr, "Broker.Test"},
               {"broker", "127.0.0.1", {"ca.der", "client.der", "client.key.der"}},
               {"broker", "broker.test", {""}, nullptr, "broker.test"},
               {"chained", "broker.test", chained, nullptr, "broker.test"},
               {"lone", "broker.test", {""}, "signed certificate"},
               {"lone", "broker.test", any, "signed certificate"},
               {"expired", "broker.test", any, "has expired"},
               {"broker", "127.0.0.2", any, "IP address mismatch"},
               {"broker", "other.test", any, "ostname mismatch"},
               {"broker", "broker.test", {"client.pem"}, "certificate in certificate chain"},
               {"broker", "broker.test", newest, "protocol version"},
               {"broker", "broker.test", rsa_only, "handshake failure"},
               {"patient", "", any, "timed out"},
               {"leaving", "", any, "closed by the peer"}};
  ::setenv("SSL_CERT_FILE", files.Path("ca.pem").c_str(), 1);  // the system's store
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    const bool good = c.reason == nullptr;
    Server server(files, c.server, c.setup.method == Method::kTls1_3 ? TLS1_2_VERSION : 0);
    const LogCapture log;
    const int32_t timeout_us = server.patient ? 200'000 : 20'000'000;
    const auto connection = Connect(server.listener.path, Settings(c.setup), c.host, timeout_us);
    char echo = '\0';
    EXPECT_EQ(connection->Send("x", 1), good ? 1 : -1);
    EXPECT_EQ(AwaitRecv(*connection, &echo, 1), good ? 1 : -1);
    connection->Shutdown();
    server.done.get();
    EXPECT_EQ(server.told_of_end && server.client_known, good);
    EXPECT_EQ(server.client_wants, c.name);
    if (!good) ExpectOneError(log, c.reason);
  }
}

TEST_F(Tls, ARefusedSettingMakesNoConnectionAndSaysSoInOneLine) {
  files.Run(R"(mkdir folder.pem folder.der  # which open, but cannot be read
for name in ca client client.key; do
  cp $name.pem $name-mistaken.der; cp $name.der $name-mistaken.pem
  for type in pem der; do head -c 100 $name.$type >$name-cut.$type; done
done
for type in pem der; do
  openssl pkcs8 -topk8 -passout pass:word -in client.key.pem -outform $type -out locked.key.$type
done)");
  std::vector<Setup> cases(2);
  cases[0].ca = "client.key.pem";  // no certificate
  cases[1].method = Method::kTls1_1;
  for (const char* key : {"ca.key.pem", "locked.key.pem", "locked.key.der"}) cases.emplace_back().key = key;
  for (const char* name : {"NO-SUCH-CIPHER", "TLS_NO_SUCH_SUITE"}) cases.emplace_back().ciphers = name;
  for (const auto role : {&Setup::ca, &Setup::certificate, &Setup::key}) {
    const std::string name = fs::path(Setup().*role).stem();
    for (const auto& bad : {std::string("missing"), std::string("folder"), name + "-cut", name + "-mistaken"})
      for (const char* type : {".pem", ".der"}) cases.emplace_back().*role = bad + type;
  }
  const Listener listener;
  for (const Setup& c : cases) {
    SCOPED_TRACE(c.ca + " " + c.certificate + " " + c.key + " " + c.ciphers);
    const LogCapture log;
    const auto settings = Settings(c, false);
    ExpectOneError(log, "refused");
    EXPECT_FALSE(Connect(listener.path, settings)->IsConnected());
  }
  EXPECT_FALSE(AwaitEvent(listener.fd.get(), POLLIN, {}));  // none of them came
}

TEST_F(Tls, UnitsOfThreadsComeBackWholeWhileBothSidesWrite) {
  constexpr size_t k_unit = 100'000;  // more than the send buffer takes
  for (const std::string cipher : {"ECDHE-ECDSA-CHACHA20-POLY1305", "TLS_AES_128_GCM_SHA256"}) {
    Server server(files, "broker");
    const auto connection =
        Connect(server.listener.path, Settings({"ca.pem", "client.pem", "client.key.pem", cipher}));
    std::vector<std::future<void>> senders;
    for (const char letter : {'a', 'b', 'c'}) {
      senders.push_back(std::async(std::launch::async, [&, unit = std::string(k_unit, letter)] {
        for (int i = 0; i < 10; ++i) EXPECT_EQ(connection->Send(unit.data(), k_unit), ssize_t{k_unit});
      }));
    }
    std::string echo, part(3'000, '\0');
    while (echo.size() < 30 * k_unit) {
      const ssize_t got = AwaitRecv(*connection, part.data(), part.size());
      ASSERT_GT(got, 0);
      echo.append(part, 0, static_cast<size_t>(got));
    }
    for (size_t begin = 0; begin < echo.size(); begin += k_unit)
      EXPECT_GE(echo.find_first_not_of(echo[begin], begin), begin + k_unit) << "torn by another";
    connection->Shutdown();
    server.done.get();
    EXPECT_EQ(server.cipher, cipher);
  }
}

TEST_F(Tls, RecordsWithoutDataAndPartsOfRecordsNeitherEndNorStallASession) {
  const std::function<int(SSL*)> cases[] = {
      [](SSL* ssl) { return SSL_key_update(ssl, SSL_KEY_UPDATE_NOT_REQUESTED); },
      [](SSL* ssl) { return SSL_key_update(ssl, SSL_KEY_UPDATE_REQUESTED); }, SSL_new_session_ticket,
      SSL_renegotiate};
  for (const auto& disturb : cases) {
    SCOPED_TRACE(&disturb - cases);
    const bool renegotiates = &disturb == std::end(cases) - 1;  // the refusal ends a server that reads it
    std::promise<void> seen;
    const Server server(files, "broker", renegotiates ? TLS1_2_VERSION : 0, [&](SSL* ssl) {
      for (int i = 0; i < 5; ++i) EXPECT_EQ(disturb(ssl) + SSL_do_handshake(ssl), 2);
      seen.get_future().wait_for(k_deadline);
      SSL_write(ssl, "data", 4);
      if (!renegotiates) return Echo(ssl);
      EXPECT_TRUE(AwaitEvent(SSL_get_fd(ssl), POLLRDHUP));
      for (char byte = 0; SSL_read(ssl, &byte, 1) > 0;) continue;
      EXPECT_EQ(ERR_GET_REASON(ERR_peek_last_error()), SSL_R_NO_RENEGOTIATION);
    });
    const Listener front;
    const auto proxy = std::async(std::launch::async, [&] { Trickle(front, server.listener.path); });
    const auto connection = Connect(front.path, Settings({}));
    char data[4] = {};
    EXPECT_TRUE(AwaitEvent(connection->GetFd(), POLLIN));
    EXPECT_EQ(connection->Recv(data, 4), SocketClient::k_nothing_now);
    EXPECT_EQ(connection->Send("x", 1), 1);
    seen.set_value();
    EXPECT_EQ(AwaitRecv(*connection, data, 1), 1);
    EXPECT_TRUE(connection->HasPending());  // what the descriptor does not announce
    EXPECT_EQ(connection->Recv(data + 1, 3), 3);
    EXPECT_FALSE(connection->HasPending());
    EXPECT_EQ(std::string(data, 4), "data");
    EXPECT_TRUE(renegotiates || AwaitRecv(*connection, data, 4) == 1);
  }
}

}  // namespace
}  // namespace zeb::test
