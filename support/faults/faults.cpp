#include "faults/faults.hpp"

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

#include <fcntl.h>
#include <spdlog/spdlog.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include "tovren_mapstead/engines/llm.hpp"

#include "loopback/detour.hpp"

namespace faults {
namespace {

namespace fs = std::filesystem;
namespace llm = tovren_mapstead::engines::llm;

constexpr const char* LOGGER = "tovren_mapstead.engines.llm";

std::string causes_of(const std::exception& error) {
  try {
    std::rethrow_if_nested(error);
  } catch (const std::exception& cause) {
    return std::string(cause.what()).append("\n").append(causes_of(cause));
  }
  return "";
}

// A file in memory, so that nothing is left where a process ends with it in use.
struct File {
  explicit File(const std::string& text) { std::ofstream(path) << text; }

  int descriptor = memfd_create("authorities", MFD_CLOEXEC);
  std::string path = "/proc/self/fd/" + std::to_string(descriptor);
};

}  // namespace

Outcome outcome_of(const std::function<std::string()>& call) {
  const auto start = http::Clock::now();
  const auto ended = [&](const char* end, const std::string& text, const std::string& causes = "") {
    const std::chrono::duration<double> took = http::Clock::now() - start;
    return Outcome{.end = end, .text = text, .causes = causes, .seconds = took.count()};
  };
  try {
    return ended("answer", call());
  } catch (const llm::LLMStopped& error) {
    return ended("LLMStopped", error.what(), causes_of(error));
  } catch (const llm::LLMTimeout& error) {
    return ended("LLMTimeout", error.what(), causes_of(error));
  } catch (const llm::LLMError& error) {
    return ended("LLMError", error.what(), causes_of(error));
  } catch (const std::invalid_argument& error) {
    return ended("invalid_argument", error.what());
  }
}

Expect expect(const Fault& fault, Asked asked) {
  if (asked == Asked::streamed) return fault.streamed;
  if (asked == Asked::whole || fault.whole.effect == Effect::again) return fault.whole;
  // Whatever holds no token is a failure, whose text quotes nothing but the status.
  const bool status = fault.whole.text.starts_with("HTTP");
  return {.effect = Effect::failure,
          .text = status ? fault.whole.text : "Copilot token",
          .end = fault.whole.end};
}

Outcome predict(const std::vector<const Fault*>& script, const Asked asked, int attempts) {
  Outcome due{.end = "answer"};
  Asked now = asked;
  for (const Fault* const fault : script) {
    ++due.requests;
    const Expect means = fault != nullptr ? expect(*fault, now) : Expect{Effect::answer};
    due.text = means.text;
    if (means.effect == Effect::answer) break;
    if (means.effect == Effect::without_stream && now == Asked::streamed) {
      now = Asked::whole;
    } else if (means.effect == Effect::again && due.attempts < attempts) {
      ++due.attempts;
      now = asked;
    } else {
      due.end = "LLMError";
      break;
    }
  }
  return due;
}

Outcome make(const Call& call) {
  loopback::Server server(call.serve, call.options);
  const bool copilot = call.asked == Asked::token;
  auto transport = call.trusted ? trusting(server) : http::make_transport();
  if (copilot) transport = loopback::detour(server.url(), transport);
  const std::string url = !call.host.empty()
                              ? "https://" + call.host + ":" + std::to_string(server.port())
                          : call.url.empty() ? server.url()
                                             : call.url;
  int attempts = 1;
  const http::Wait wait = [&](double period_s, const auto& should_stop, auto deadline) {
    ++attempts;
    call.wait(period_s, should_stop, deadline);
  };
  const llm::LLMClient client({.provider = copilot ? "copilot" : "openai",
                               .base_url = url,
                               .model = "m",
                               .api_key = KEY,
                               .timeout_s = call.timeout_s,
                               .max_retries = call.attempts - 1,
                               .stream = call.asked != Asked::whole},
                              {.transport = transport, .wait = wait});
  const llm::Messages messages{llm::user(std::string(call.size, 'x'))};
  const auto moment = http::Clock::now() + call.until;
  llm::ChatOptions options;
  // Stands for a flag that another thread sets.
  if (call.bound == Bound::stop) options.should_stop = [=] { return http::Clock::now() >= moment; };
  if (call.bound == Bound::deadline) options.deadline = moment;
  Outcome outcome = outcome_of([&] { return client.chat(messages, options).content(); });
  outcome.requests = server.requests();
  outcome.attempts = attempts;
  if (call.bound != Bound::none) {
    outcome.seconds = std::chrono::duration<double>(http::Clock::now() - moment).count();
  }
  return outcome;
}

bool shows_secret(std::string_view text) {
  constexpr std::size_t TOO_MUCH = 8;
  return text.find(PASSWORD) != std::string_view::npos ||
         std::ranges::any_of(SPELLINGS, [&](const std::string& spelling) {
           return text.find(spelling.substr(0, TOO_MUCH)) != std::string_view::npos;
         });
}

void mute_log() {
  spdlog::drop(LOGGER);
  spdlog::register_logger(std::make_shared<spdlog::logger>(LOGGER, spdlog::sinks_init_list{}));
}

std::ptrdiff_t entries(const char* folder) {
  return std::distance(fs::directory_iterator(folder), {});
}

int inheritable_connections() {
  int count = 0;
  for (const auto& entry : fs::directory_iterator("/proc/self/fd")) {
    const int descriptor = std::stoi(entry.path().filename().string());
    int family = 0;
    socklen_t size = sizeof family;
    const bool connection =
        getsockopt(descriptor, SOL_SOCKET, SO_DOMAIN, &family, &size) == 0 && family == AF_INET;
    if (connection && (fcntl(descriptor, F_GETFD) & FD_CLOEXEC) == 0) ++count;
  }
  return count;
}

std::shared_ptr<http::Transport> trusting(const loopback::Server& server) {
  if (server.certificate().empty()) return http::make_transport();
  const File file(server.certificate());
  auto transport = http::make_transport({.ca_file = file.path});
  return {transport.get(), [transport, file](auto*) { ::close(file.descriptor); }};
}

void set_authorities(const std::string& pem) {
  setenv("SSL_CERT_FILE", File(pem).path.c_str(),
         1);  // NOLINT(concurrency-mt-unsafe): no calls yet
}

}  // namespace faults
