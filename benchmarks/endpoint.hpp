// The server that the benchmarks talk to, in a process of its own so that its work does not count.
#pragma once

#include <cstdio>
#include <memory>
#include <string>

namespace bench {

/// Serves until nobody reads its output any more, which is what `Endpoint` has to know. The path
/// says what comes: /stream/N (events), /paced/N (one every 2 ms), /slow/N (every 20 ms), /late/MS
/// (the terminating chunk, so long after the rest), /whole/N (bytes of content), /connections (how
/// many there were), /silence.
int serve();

/// Such a process, started from this program's own file.
class Endpoint {
 public:
  Endpoint();

  [[nodiscard]] const std::string& url() const noexcept { return _url; }

  [[nodiscard]] const std::string& tls_url() const noexcept { return _tls_url; }

  /// The certificate to trust, in PEM form.
  [[nodiscard]] const std::string& certificate() const noexcept { return _certificate; }

 private:
  struct Close {
    void operator()(FILE* pipe) const { pclose(pipe); }
  };

  std::string line();

  std::unique_ptr<FILE, Close> _pipe;
  std::string _url;
  std::string _tls_url;
  std::string _certificate;
};

}  // namespace bench
