// The client socket, plain and over TLS, against peers on loopback. Every wait ends at a deadline.
#include "util/socket.h"

#include <gtest/gtest.h>
#include <netdb.h>
#include <netinet/in.h>
#include <openssl/ssl.h>
#include <poll.h>

#include <csignal>
#include <future>
#include <vector>

#include "tests/platform/certificates.h"
#include "tests/support/deny_device.h"
#include "util/boot_clock.h"

namespace zeb::test {
namespace {

using util::SocketClient;
using util::SslWrapper;
using Method = SslWrapper::Method;
constexpr auto k_pem = SslWrapper::FileType::kPem;

constexpr std::chrono::milliseconds k_deadline(20'000);  // for what must happen

bool AwaitEvent(int fd, short events, std::chrono::milliseconds deadline = k_deadline) {
  pollfd entry{fd, events, 0};
  return ::poll(&entry, 1, static_cast<int>(deadline.count())) > 0;
}

/// Listens on a port of the system's choice.
struct Listener {
  explicit Listener(const std::string& host = "127.0.0.1", int backlog = 8) {
    addrinfo* address = nullptr;
    if (::getaddrinfo(host.c_str(), "0", nullptr, &address) != 0) return;
    fd = util::ScopedFd(::socket(address->ai_family, SOCK_STREAM, 0));
    const timeval limit{k_deadline.count() / 1'000, 0};  // connections inherit it
    ::setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    ::bind(fd.get(), address->ai_addr, address->ai_addrlen);
    ::listen(fd.get(), backlog);
    ::getsockname(fd.get(), address->ai_addr, &address->ai_addrlen);
    // An IPv6 address has its port at the same place.
    path = host + ";" + std::to_string(ntohs(reinterpret_cast<sockaddr_in*>(address->ai_addr)->sin_port));
    ::freeaddrinfo(address);
  }

  /// The next connection, with blocking calls that give up at the deadline, as this one does.
  util::ScopedFd Accept() const { return util::ScopedFd(::accept(fd.get(), nullptr, nullptr)); }

  util::ScopedFd fd;
  std::string path;  // as SocketClient takes it
};

std::unique_ptr<SocketClient> Connect(const std::string& path,
                                      std::shared_ptr<const util::SslWrapper> ssl = nullptr,
                                      const std::string& host = "", int32_t timeout_us = 20'000'000,
                                      const std::string& iface = "") {
  SocketClient::SocketClientOption option;
  option.ssl = std::move(ssl);
  option.host = host;
  option.timeout_us = timeout_us;
  option.tx_buf_size = 8'192;
  const auto domain = path[0] == ':' ? util::Socket::Domain::kIpv6 : util::Socket::Domain::kIpv4;
  return std::make_unique<SocketClient>(iface, util::Socket::Protocol::kTcp, domain, path, option);
}

/// The first result of Recv that is not "nothing now".
ssize_t AwaitRecv(SocketClient& client, void* data, size_t length) {
  ssize_t result = client.Recv(data, length);
  while (result == SocketClient::k_nothing_now && AwaitEvent(client.GetFd(), POLLIN))
    result = client.Recv(data, length);
  return result;
}

constexpr size_t k_unit = 40'000;         // more than the send buffer takes
constexpr size_t k_stream = 75 * k_unit;  // what SendUnits sends in all

/// Sends units, each of one letter, from three threads at once: whether each unit went out in one call.
std::vector<std::future<bool>> SendUnits(SocketClient& client) {
  std::vector<std::future<bool>> senders;
  for (const char letter : {'a', 'b', 'c'}) {
    senders.push_back(std::async(std::launch::async, [&client, unit = std::string(k_unit, letter)] {
      bool whole = true;
      for (int i = 0; i < 25; ++i) whole &= client.Send(unit.data(), k_unit) == ssize_t{k_unit};
      return whole;
    }));
  }
  return senders;
}

/// Whether `stream` is all of what SendUnits sends, no unit torn by another.
bool IsWholeUnits(const std::string& stream) {
  for (size_t begin = 0; begin < stream.size(); begin += k_unit)
    if (stream.find_first_not_of(stream[begin], begin) < begin + k_unit) return false;
  return stream.size() == k_stream;
}

struct Connected {
  explicit Connected(const std::string& host, int32_t timeout_us = 20'000'000)
      : listener(host), client(Connect(listener.path, nullptr, "", timeout_us)), peer(listener.Accept()) {}

  /// Reads until `length` bytes have come, the client closed or the deadline passed.
  [[nodiscard]] std::string PeerReads(size_t length) const {
    std::string all(length, '\0');
    const ssize_t got = ::recv(peer.get(), all.data(), length, MSG_WAITALL);
    return all.substr(0, got < 0 ? 0 : static_cast<size_t>(got));
  }

  Listener listener;
  std::unique_ptr<SocketClient> client;
  util::ScopedFd peer;
};

TEST(Socket, AFailedConnectLeavesAnUnconnectedDescriptorAboveTheStandardStreams) {
  const util::ScopedFd saved(::dup(STDIN_FILENO));
  ::close(STDIN_FILENO);
  for (const char* path : {"", "127.0.0.1", ";1883", "127.0.0.1;", "127.0.0.1;0", "127.0.0.1;65536",
                           "127.0.0.1;12x", "127.0.0.1;-1", "localhost;1883", "127.0.0.1;1" /* refuses */}) {
    SCOPED_TRACE(path);
    const auto client = Connect(path);
    EXPECT_FALSE(client->IsConnected());
    EXPECT_GT(client->GetFd(), STDERR_FILENO);
    EXPECT_EQ(::fcntl(client->GetFd(), F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(client->Send("x", 1), -1);
  }
  ::dup2(saved.get(), STDIN_FILENO);
}

TEST(Socket, ConnectGivesUpOnASilentPeerAtTheDeadline) {
  const Listener full("127.0.0.1", 0);  // whose queue takes one or two; the kernel drops what comes later
  std::vector<std::unique_ptr<SocketClient>> clients;
  int64_t start_us = 0;
  do {
    start_us = util::MonotonicUs();
    clients.push_back(Connect(full.path, nullptr, "", 200'000));
  } while (clients.back()->IsConnected() && clients.size() < 8);
  EXPECT_FALSE(clients.back()->IsConnected());
  EXPECT_NEAR(static_cast<double>(util::MonotonicUs() - start_us), 5'100'000, 4'900'000);  // 0.2 s to 10 s
}

TEST(Socket, MovesBytesOverBothFamiliesUntilThePeerEnds) {
  for (const bool reset : {false, true}) {
    Connected pair(reset ? "::1" : "127.0.0.1");
    char data[8] = {};
    EXPECT_EQ(pair.client->Recv(data, sizeof data), SocketClient::k_nothing_now);
    EXPECT_EQ(pair.client->Send("unit", 4), 4);
    EXPECT_EQ(pair.PeerReads(4), "unit");
    ASSERT_EQ(::send(pair.peer.get(), "back", 4, 0), 4);
    EXPECT_EQ(AwaitRecv(*pair.client, data, sizeof data), 4);
    EXPECT_STREQ(data, "back");
    const linger at_once{1, 0};
    if (reset) ::setsockopt(pair.peer.get(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    pair.peer.Reset();
    EXPECT_EQ(AwaitRecv(*pair.client, data, sizeof data), reset ? -1 : 0);
    while (pair.client->Send("x", 1) >= 0) continue;  // a plain write would end the process here
  }
}

TEST(Socket, ChosenInterface) {
  const Listener listener;
  for (const bool deny : {false, true}) {  // then the interface's own address takes the device's place
    for (const std::string iface : {"lo", "zeb-none", "name-beyond-15-characters"}) {
      const DenyDevice denied(deny);
      const auto client = Connect(listener.path, nullptr, "", 5'000'000, iface);
      EXPECT_EQ(client->IsConnected(), iface == "lo") << iface << deny;
    }
  }
}

TEST(Socket, ACutUnitIsTheLastOne) {
  Connected pair("127.0.0.1", 200'000);
  const std::string unit(32 << 20, 'u');
  const ssize_t sent = pair.client->Send(unit.data(), unit.size());
  ASSERT_GT(sent, 0);
  ASSERT_LT(sent, static_cast<ssize_t>(unit.size()));
  auto read = std::async(std::launch::async, [&] { return pair.PeerReads(unit.size()).size(); });
  ASSERT_TRUE(AwaitEvent(pair.client->GetFd(), POLLOUT));  // there is room again
  EXPECT_EQ(pair.client->Send("next", 4), -1);
  pair.client->Shutdown();
  EXPECT_EQ(read.get(), static_cast<size_t>(sent));
}

TEST(Socket, UnitsOfThreadsNeverInterleave) {
  Connected pair("127.0.0.1");
  auto senders = SendUnits(*pair.client);
  EXPECT_TRUE(IsWholeUnits(pair.PeerReads(k_stream)));
  for (auto& sender : senders) EXPECT_TRUE(sender.get());
}

TEST(Socket, ShutdownReleasesABlockedSender) {
  Connected pair("127.0.0.1", 2'000'000'000);
  const std::string unit(64 << 20, 'u');
  auto sender = std::async(std::launch::async, [&] { return pair.client->Send(unit.data(), unit.size()); });
  ASSERT_TRUE(AwaitEvent(pair.peer.get(), POLLIN));  // it is at it
  pair.client->Shutdown();
  ASSERT_EQ(sender.wait_for(k_deadline), std::future_status::ready);
  EXPECT_LT(sender.get(), static_cast<ssize_t>(unit.size()));
}

/// Serves one connection on a thread of its own: the handshake, then an echo until it ends.
struct Server {
  Server(const Identity& identity, const Identity& ca) {
    SSL_CTX_use_certificate(ctx.get(), identity.certificate.get());
    SSL_CTX_use_PrivateKey(ctx.get(), identity.key.get());
    X509_STORE_add_cert(SSL_CTX_get_cert_store(ctx.get()), ca.certificate.get());
    SSL_CTX_set_verify(ctx.get(), SSL_VERIFY_PEER, nullptr);  // asks for a certificate, needs none
    done = std::async(std::launch::async, [this] { Run(); });
  }
  void Run() {
    sigset_t all;  // the client, not the server, is under test
    sigfillset(&all);
    ::pthread_sigmask(SIG_BLOCK, &all, nullptr);
    const util::ScopedFd peer = listener.Accept();
    const std::shared_ptr<SSL> ssl(SSL_new(ctx.get()), SSL_free);
    SSL_set_fd(ssl.get(), peer.get());
    if (SSL_accept(ssl.get()) != 1) return;
    cipher = SSL_get_cipher_name(ssl.get());
    client_known = SSL_get0_peer_certificate(ssl.get()) != nullptr;  // which the store vouches for
    char data[4096];
    while (SSL_write(ssl.get(), data, SSL_read(ssl.get(), data, sizeof data)) > 0) continue;
  }

  const Listener listener;
  std::shared_ptr<SSL_CTX> ctx{SSL_CTX_new(TLS_server_method()), SSL_CTX_free};
  std::string cipher;  // this and the next: once it is done
  bool client_known = false;
  std::future<void> done;  // last: its end waits for the thread
};

class Tls : public testing::Test {
 protected:
  Tls() {
    files.AddIdentity("ca", ca);
    files.AddIdentity("client", client);
  }

  struct Setup {
    std::string ca = "ca.pem";
    std::string certificate = "client.pem";
    std::string key = "client.key.pem";
    std::string ciphers = "DEFAULT";
    Method method = Method::kTls;
  };
  std::shared_ptr<SslWrapper> Settings(const Setup& setup, bool good = true) {
    auto settings = std::make_shared<SslWrapper>(false, setup.method);
    const bool trusts = settings->SetRootCaFile(files.Path(setup.ca), k_pem) == 0;
    const std::string certificate = files.Path(setup.certificate);
    const bool known = settings->SetCertAndKeyFile(certificate, files.Path(setup.key), k_pem, k_pem) == 0;
    EXPECT_EQ(settings->SetCipherLists({setup.ciphers}) == 0 && trusts && known, good);
    return settings;
  }

  TempFiles files;
  Identity ca = MakeIdentity("Test CA", nullptr, nullptr);
  Identity broker = MakeIdentity("broker", "DNS:broker.test,IP:127.0.0.1", &ca);
  Identity client = MakeIdentity("client", "DNS:client", &ca);
};

TEST_F(Tls, ThePeerMustBeVerified) {
  const Identity expired = MakeIdentity("broker", "DNS:broker.test", &ca, -60);
  const struct {
    const Identity& identity;
    const char *host, *ca_file;
    bool connected;
  } cases[] = {{broker, "", "ca.pem", true},  // by the address connected to
               {broker, "Broker.Test.", "ca.pem", true},
               {broker, "127.0.0.2", "ca.pem", false},
               {broker, "other.test", "ca.pem", false},
               {broker, "broker.test", "client.pem", false},
               {expired, "broker.test", "ca.pem", false}};
  for (const auto& c : cases) {
    Server server(c.identity, ca);
    const auto connection = Connect(server.listener.path, Settings({c.ca_file}), c.host);
    EXPECT_EQ(connection->IsConnected(), c.connected) << c.host << c.ca_file;
    EXPECT_EQ(connection->Send("x", 1), c.connected ? 1 : -1);
  }
}

TEST_F(Tls, ARefusedSettingMakesNoConnection) {
  char password[] = "secret";
  files.Add("locked", [&](BIO* file) {
    PEM_write_bio_PKCS8PrivateKey(file, client.key.get(), EVP_aes_128_cbc(), password, 6, nullptr, nullptr);
  });
  const Setup cases[] = {{"missing"},
                         {"client.key.pem"},  // no certificate

                         {"ca.pem", "missing"},
                         {"ca.pem", "client.pem", "missing"},
                         {"ca.pem", "client.pem", "ca.key.pem"},
                         {"ca.pem", "client.pem", "locked"},
                         {"ca.pem", "client.pem", "client.key.pem", "NO-SUCH-CIPHER"},
                         {"ca.pem", "client.pem", "client.key.pem", "TLS_NO_SUCH_SUITE"},
                         {"ca.pem", "client.pem", "client.key.pem", "DEFAULT", Method::kTls1_1}};
  const Listener listener;
  for (const Setup& c : cases) {
    SCOPED_TRACE(&c - cases);
    EXPECT_FALSE(Connect(listener.path, Settings(c, false), "", 200'000)->IsConnected());
  }
  EXPECT_FALSE(AwaitEvent(listener.fd.get(), POLLIN, {}));                         // none of them came
  EXPECT_FALSE(Connect(listener.path, Settings({}), "", 200'000)->IsConnected());  // no hand to shake
  EXPECT_TRUE(AwaitEvent(listener.fd.get(), POLLIN, {}));
}

TEST_F(Tls, UnitsOfThreadsComeBackWholeWhileBothSidesWrite) {
  const Setup cases[] = {
      {"ca.pem", "client.pem", "client.key.pem", "ECDHE-ECDSA-CHACHA20-POLY1305", Method::kTls1_2},
      {"ca.pem", "client.pem", "client.key.pem", "TLS_AES_128_GCM_SHA256"}};
  for (const Setup& c : cases) {
    Server server(broker, ca);
    const auto connection = Connect(server.listener.path, Settings(c));
    auto senders = SendUnits(*connection);
    std::string echo;
    std::string part(3'000, '\0');
    while (echo.size() < k_stream) {
      const ssize_t got = AwaitRecv(*connection, part.data(), part.size());
      ASSERT_GT(got, 0);
      echo.append(part, 0, static_cast<size_t>(got));
    }
    EXPECT_TRUE(IsWholeUnits(echo));
    for (auto& sender : senders) EXPECT_TRUE(sender.get());
    connection->Shutdown();
    server.done.get();
    EXPECT_EQ(server.cipher, c.ciphers);
    EXPECT_TRUE(server.client_known);
  }
}

TEST_F(Tls, DecryptedBytesArePendingUntilRead) {
  Server server(broker, ca);
  const auto connection = Connect(server.listener.path, Settings({}));
  char data[16] = {};
  EXPECT_EQ(connection->Send("0123456789", 10), 10);
  ASSERT_EQ(AwaitRecv(*connection, data, 4), 4);
  EXPECT_TRUE(connection->HasPending());
  EXPECT_EQ(connection->Recv(data, sizeof data), 6);
  EXPECT_FALSE(connection->HasPending());
}

}  // namespace
}  // namespace zeb::test
