// Looking up a name that ends in ".slow.test" takes two seconds, as where name servers are ill; one
// that ends in ".two.test" has the addresses 127.0.0.2 and 127.0.0.1, in this order.
#include <chrono>
#include <string_view>
#include <thread>

#include <dlfcn.h>
#include <netdb.h>

// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name): glibc calls them otherwise
extern "C" int getaddrinfo(const char* node, const char* service, const addrinfo* hints,
                           addrinfo** result) {
  if (node != nullptr && std::string_view(node).ends_with(".slow.test")) {
    std::this_thread::sleep_for(std::chrono::seconds(2));
    return EAI_AGAIN;
  }
  static const auto real =
      reinterpret_cast<decltype(&getaddrinfo)>(dlsym(RTLD_NEXT, "getaddrinfo"));
  if (node == nullptr || !std::string_view(node).ends_with(".two.test")) {
    return real(node, service, hints, result);
  }
  const int error = real("127.0.0.2", service, hints, result);
  return error != 0 ? error : real("127.0.0.1", service, hints, &(*result)->ai_next);
}
