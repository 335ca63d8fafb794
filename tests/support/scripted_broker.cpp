// The broker's thread: one poll over the listener, the wake-up and all connections; nothing in it blocks.
#include "tests/support/scripted_broker.h"

#include <netinet/tcp.h>
#include <sys/eventfd.h>

#include <array>
#include <sstream>

namespace zeb::test {
namespace {

uint8_t Byte(const std::string& text, size_t at) { return static_cast<uint8_t>(text[at]); }

// Takes the packet at the front of `in`, if it is there whole.
bool TakePacket(std::string& in, Packet* packet) {
  size_t length = 0;
  size_t at = 1;
  for (bool more = true; more; ++at) {
    if (at >= in.size()) return false;
    length |= static_cast<size_t>(Byte(in, at) & 0x7F) << 7 * (at - 1);
    more = (Byte(in, at) & 0x80) != 0 && at < 4;
  }
  if (in.size() < at + length) return false;
  *packet = {in.substr(0, at + length), at};
  in.erase(0, at + length);
  return true;
}

}  // namespace

std::string Bytes(const std::string& text) {
  std::string bytes;
  std::istringstream words(text);
  for (std::string word; words >> word;) {
    const bool quoted = word.front() == '\'';
    if (quoted) bytes += word.substr(1, word.size() - 2);
    for (size_t i = 0; !quoted && i < word.size(); i += 2)
      bytes += static_cast<char>(std::stoi(word.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

std::string Hex(const std::string& bytes) {
  std::string hex;
  for (size_t i = 0; i < 2 * bytes.size(); ++i)
    hex += "0123456789abcdef"[Byte(bytes, i / 2) >> (i % 2 == 0 ? 4 : 0) & 15];
  return hex;
}

std::string Packet::id() const {
  if (type() != MsgType::PUBLISH) return type() == MsgType::CONNECT ? "" : body().substr(0, 2);
  return body().substr(2 + static_cast<size_t>(Byte(body(), 0) << 8 | Byte(body(), 1)), 2);
}

void Connection::Send(const std::string& bytes) {
  broker_.Change([&] { out_ += bytes; });
}
void Connection::Close(bool at_once) {
  broker_.Change([=] { (at_once ? resetting_ : closing_) = true; });
}
void Connection::StopReading() {
  broker_.Change([this] { reading_ = false; });
}
bool Connection::Pause(int ms) {
  broker_.Change([this] { broker_.Write(*this); });
  pollfd end{fd_.get(), POLLRDHUP, 0};
  return fd_.valid() && ::poll(&end, 1, ms) == 0;
}

void ScriptedBroker::Answer(Connection& connection, const Packet& packet) {
  // In MQTT 3.1.1 and 5.0, without the packet identifier, which comes third. PUBLISH: to QoS 1 and 2.
  static const std::map<MsgType, std::array<const char*, 2>> answers = {
      {MsgType::CONNECT, {"20020000", "2003000000"}},
      {MsgType::PUBLISH, {"4002", "5002"}},
      {MsgType::PUBREC, {"6202", "6202"}},
      {MsgType::PUBREL, {"7002", "7002"}},
      {MsgType::SUBSCRIBE, {"900301", "90040001"}},
      {MsgType::UNSUBSCRIBE, {"b002", "b0040011"}},
      {MsgType::PINGREQ, {"d000", "d000"}},
  };
  const bool publish = packet.type() == MsgType::PUBLISH;
  if (packet.type() == MsgType::DISCONNECT) return connection.Close();
  if (answers.count(packet.type()) == 0 || (publish && packet.qos() == 0)) return;
  const bool second = publish ? packet.qos() == 2 : connection.mqtt5_;
  connection.Send(Bytes(answers.at(packet.type())[second ? 1 : 0]).insert(2, packet.id()));
}

ScriptedBroker::ScriptedBroker(std::map<MsgType, Handler> handlers, int public_port)
    : handlers_(std::move(handlers)),
      listener_(public_port != 0 ? "::" : "127.0.0.1", public_port),
      wake_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)),
      thread_([this] { Run(); }) {}

ScriptedBroker::~ScriptedBroker() {
  Change([this] { stop_ = true; });
  thread_.join();
}

void ScriptedBroker::Change(const std::function<void()>& change) {
  const std::lock_guard<std::mutex> lock(mutex_);
  change();
  (void)::eventfd_write(wake_.get(), 1);
}

void ScriptedBroker::Run() {
  for (;;) {
    std::vector<pollfd> polled = {{listener_.fd.get(), POLLIN, 0}, {wake_.get(), POLLIN, 0}};
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      if (stop_) return;
      for (const auto& connection : connections_) {
        Write(*connection);
        const int events = (connection->reading_ ? POLLIN : 0) | (connection->out_.empty() ? 0 : POLLOUT);
        polled.push_back({events != 0 ? connection->fd_.get() : -1, static_cast<short>(events), 0});
      }
    }
    ::poll(polled.data(), polled.size(), -1);
    eventfd_t count = 0;
    (void)::eventfd_read(wake_.get(), &count);
    for (size_t i = 2; i < polled.size(); ++i)
      if ((polled[i].revents & (POLLIN | POLLHUP | POLLERR)) != 0) Read(*connections_[i - 2]);
    if (polled[0].revents != 0) Accept();
  }
}

void ScriptedBroker::Accept() {
  util::ScopedFd fd(::accept4(listener_.fd.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  if (!fd.valid()) return;
  const int on = 1;
  ::setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  std::unique_lock<std::mutex> lock(mutex_);
  Connection& connection = *connections_.emplace_back(new Connection(*this));
  connection.fd_ = std::move(fd);
  lock.unlock();
  const auto own = handlers_.find(MsgType::RESERVED);
  if (own != handlers_.end()) own->second(connection, Packet());
}

void ScriptedBroker::Read(Connection& connection) {
  std::string bytes(65'536, '\0');
  const ssize_t count = ::recv(connection.fd_.get(), bytes.data(), bytes.size(), 0);
  if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
  std::unique_lock<std::mutex> lock(mutex_);
  if (count <= 0) return connection.fd_.Reset();
  connection.in_.append(bytes, 0, static_cast<size_t>(count));
  for (Packet packet; TakePacket(connection.in_, &packet); lock.lock()) {
    if (packet.type() == MsgType::CONNECT && packet.body().size() > 6)
      connection.mqtt5_ = packet.body()[6] == '\x05';
    lock.unlock();
    packets_.Push(packet);
    const auto own = handlers_.find(packet.type());
    own != handlers_.end() ? own->second(connection, packet) : Answer(connection, packet);
  }
}

void ScriptedBroker::Write(Connection& connection) {
  const int fd = connection.fd_.get();
  std::string& out = connection.out_;
  if (!out.empty()) {
    const ssize_t sent = ::send(fd, out.data(), out.size(), MSG_NOSIGNAL);
    if (sent >= 0) out.erase(0, static_cast<size_t>(sent));
    if (sent < 0 && errno != EAGAIN) out.clear();
  }
  if (connection.resetting_) {
    const linger at_once{1, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
    out.clear();
  }
  if (out.empty() && (connection.closing_ || connection.resetting_)) connection.fd_.Reset();
}

}  // namespace zeb::test
