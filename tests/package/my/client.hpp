// Stands for somebody's client library.
#pragma once
#include <string>
#include <utility>
#include <vector>
namespace my {
struct Client {
  Client(std::string, std::string) {}
  std::string ask(const std::string& model, const std::vector<std::vector<std::pair<std::string, std::string>>>&) { return model; }
};
}  // namespace my
