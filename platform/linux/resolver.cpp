// Checks address literals, and resolves names within a time limit. Any thread. Each lookup runs on a thread
// of its own, because the system's resolver can be neither limited nor interrupted.
#include <arpa/inet.h>
#include <netdb.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <atomic>
#include <limits>
#include <memory>
#include <new>
#include <utility>

#include "platform/linux/deadline.h"
#include "platform/linux/host_addresses.h"
#include "util/log.h"
#include "util/network_manager.h"
#include "util/scoped_fd.h"
#include "util/thread.h"

namespace zeb::util {
namespace {

// Shared by the caller and the thread that looks the name up. Either may be the last to use it.
struct Lookup {
  // An abandoned lookup continues until the resolver's own limits end it. While there are this many, plenty
  // for a client that keeps retrying, no new lookup begins.
  static constexpr int k_max_abandoned = 16;
  inline static std::atomic<int> all_abandoned{0};

  explicit Lookup(std::string host) : name(std::move(host)) {}
  ~Lookup() {
    if (abandoned) --all_abandoned;
  }
  Lookup(const Lookup&) = delete;
  Lookup& operator=(const Lookup&) = delete;

  void Run();
  void Resolve();
  void Abandon() {
    ++all_abandoned;
    abandoned = true;
  }

  const std::string name;
  const ScopedFd done{::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)};  // becomes readable once the result is there
  std::atomic<bool> filled{false};
  std::atomic<bool> abandoned{false};
  int error = EAI_AGAIN;
  std::vector<std::string> ipv4;
  std::vector<std::string> ipv6;
};

void Lookup::Run() {
  try {
    Resolve();
  } catch (const std::bad_alloc&) {
    error = EAI_MEMORY;
  }
  filled = true;
  ::eventfd_write(done.get(), 1);
}

void Lookup::Resolve() {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* first = nullptr;
  error = ::getaddrinfo(name.c_str(), nullptr, &hints, &first);
  if (error != 0) return;
  const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> found(first, ::freeaddrinfo);
  for (const addrinfo* entry = first; entry != nullptr; entry = entry->ai_next) {
    if (entry->ai_family != AF_INET && entry->ai_family != AF_INET6) continue;
    std::vector<std::string>& list = entry->ai_family == AF_INET6 ? ipv6 : ipv4;
    std::string text = NumericAddress(entry->ai_addr, entry->ai_addrlen);
    if (text.empty() || std::find(list.begin(), list.end(), text) != list.end()) continue;
    list.push_back(std::move(text));
  }
  if (ipv4.empty() && ipv6.empty()) error = EAI_NONAME;
}

}  // namespace

bool NetworkManager::IsValidAddress(const std::string& address, bool ipv6) {
  if (address.find('\0') != std::string::npos) return false;
  in6_addr parsed{};  // large enough for either family
  if (!ipv6) return ::inet_pton(AF_INET, address.c_str(), &parsed) == 1;

  const size_t percent = address.find('%');
  if (percent != std::string::npos) {
    const std::string zone = address.substr(percent + 1);
    if (zone.empty() || zone.find('%') != std::string::npos) return false;
  }
  return ::inet_pton(AF_INET6, address.substr(0, percent).c_str(), &parsed) == 1;
}

int NetworkManager::ResolveHostName(const std::string& name, std::vector<std::string>& ipv4,
                                    std::vector<std::string>& ipv6, int64_t timeout_us, int cancel_fd) {
  ipv4.clear();
  ipv6.clear();
  if (name.empty()) return EAI_NONAME;
  constexpr int64_t k_no_limit_us = std::numeric_limits<int64_t>::max() / 2;
  const Deadline deadline(timeout_us < 0 ? k_no_limit_us : timeout_us, cancel_fd);
  const auto lookup = std::make_shared<Lookup>(name);
  Thread thread;
  if (Lookup::all_abandoned >= Lookup::k_max_abandoned || !lookup->done.valid() ||
      thread.Start([lookup] { lookup->Run(); }) != kSuccess) {
    ZEB_LOG(LOG_WARNING, "%s not resolved: no resources, or too many lookups without an answer",
            name.c_str());
    return EAI_AGAIN;
  }
  thread.Detach();
  (void)deadline.Await(lookup->done.get(), POLLIN);  // `filled` has the outcome
  if (!lookup->filled) {
    lookup->Abandon();
    ZEB_LOG(LOG_DEBUG, "%s not resolved: %s", name.c_str(), deadline.Cancelled() ? "given up" : "timed out");
    return EAI_AGAIN;
  }
  if (lookup->error != 0) {
    ZEB_LOG(LOG_DEBUG, "%s not resolved: %s", name.c_str(), ::gai_strerror(lookup->error));
    return lookup->error;
  }
  ipv4 = std::move(lookup->ipv4);
  ipv6 = std::move(lookup->ipv6);
  return 0;
}

}  // namespace zeb::util
