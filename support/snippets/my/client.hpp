// Stands for somebody's own client library where the documentation binds one.
#pragma once

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace my {

struct Offline : std::runtime_error {
  using std::runtime_error::runtime_error;
};

struct Refused : std::runtime_error {
  Refused(const std::string& text, int status_in) : std::runtime_error(text), status(status_in) {}

  int status;
};

/// Answers with what it was asked last; fails as the name of the model says.
class Client {
 public:
  Client(std::string base_url, std::string api_key)
      : _base_url(std::move(base_url)), _api_key(std::move(api_key)) {}

  [[nodiscard]] std::string ask(const std::string& model, const std::string& question) const {
    if (model == "offline") throw Offline(_base_url + " cannot be reached");
    if (model == "503") throw Refused("busy", 503);
    if (model == "401") throw Refused("the key " + _api_key + " is refused", 401);
    if (model == "odd") throw std::runtime_error("something odd");
    return "You said: " + question;
  }

 private:
  std::string _base_url;
  std::string _api_key;
};

}  // namespace my
