#include "faults/faults.hpp"

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

#include <sys/mman.h>
#include <unistd.h>

#include "tovren_mapstead/engines/llm.hpp"

#include "playback/playback.hpp"

namespace faults {

namespace fs = std::filesystem;
namespace llm = tovren_mapstead::engines::llm;
using namespace std::chrono_literals;

std::string chunk(const std::string& bytes) {
  std::ostringstream size;
  size << std::hex << bytes.size();
  return size.str() + "\r\n" + bytes + "\r\n";
}

void stay_silent(loopback::Exchange& exchange, const std::string&) {
  exchange.stall();
}

void reset(loopback::Exchange& exchange, const std::string&) {
  exchange.reset();
}

void close(loopback::Exchange& exchange, const std::string&) {
  exchange.close();
}

void trickle(loopback::Exchange& exchange, const std::string& filler) {
  for (std::size_t at = 0; exchange.send({&filler[at % filler.size()], 1}); ++at) {
    exchange.pause(2ms);
  }
}

void flood(loopback::Exchange& exchange, const std::string& filler) {
  std::string much;
  while (much.size() < std::size_t{1} << 16U) much += filler;
  while (exchange.send(much)) {
  }
  exchange.close();
}

namespace {

std::string text_of(const std::exception& error) {
  try {
    std::rethrow_if_nested(error);
  } catch (const std::exception& inner) {
    return error.what() + ("\n" + text_of(inner));
  }
  return error.what();
}

}  // namespace

Outcome make(const Call& call) {
  loopback::Server server(call.serve, call.options);
  auto transport = call.trusted ? trusting(server) : http::make_transport();
  if (call.copilot) transport = std::make_shared<playback::Detour>(server.url(), transport);
  std::string url = call.url.empty() ? server.url() : call.url;
  if (!call.scheme.empty()) url = call.scheme + url.substr(url.find(':'));
  const llm::LLMClient client({.provider = call.copilot ? "copilot" : "openai",
                               .base_url = url,
                               .model = "m",
                               .api_key = KEY,
                               .timeout_s = call.timeout_s,
                               .max_retries = 1},
                              {.transport = transport, .wait = call.wait});
  const llm::Messages messages{llm::user(std::string(call.size, 'x'))};
  const auto moment = http::Clock::now() + (call.bound == Bound::none ? 0ms : call.until);
  // Stands for a flag that another thread sets.
  const http::StopTest stop = [=] { return http::Clock::now() >= moment; };
  const bool stops = call.bound == Bound::stop;
  const bool ends = call.bound == Bound::deadline;
  std::string told;
  std::string end;
  try {
    told = client
               .chat(messages, {.should_stop = stops ? stop : http::StopTest(),
                                .deadline = ends ? std::optional(moment) : std::nullopt})
               .content();
    end = "answer";
  } catch (const llm::LLMStopped& error) {
    told = text_of(error);
    end = "stopped";
  } catch (const llm::LLMTimeout& error) {
    told = text_of(error);
    end = "late";
  } catch (const llm::LLMError& error) {
    told = text_of(error);
    end = "error";
  }
  const std::chrono::duration<double> late = http::Clock::now() - moment;
  return {.told = told,
          .end = end,
          .requests = server.requests(),
          .seconds = late.count(),
          .shows_key = shows_key(told)};
}

bool shows_key(std::string_view text) {
  constexpr std::size_t TOO_MUCH = 8;
  return std::ranges::any_of(SPELLINGS, [&](const std::string& spelling) {
    return text.find(spelling.substr(0, TOO_MUCH)) != std::string_view::npos;
  });
}

std::ptrdiff_t descriptors() {
  return std::distance(fs::directory_iterator("/proc/self/fd"), {});
}

std::shared_ptr<http::Transport> trusting(const loopback::Server& server) {
  if (server.certificate().empty()) return http::make_transport();
  // In memory, so that nothing is left where a process ends with its transports in use.
  const int memory = memfd_create("authority", MFD_CLOEXEC);
  const std::string file = "/proc/self/fd/" + std::to_string(memory);
  std::ofstream(file) << server.certificate();
  auto transport = http::make_transport({.ca_file = file});
  return {transport.get(), [transport, memory](auto*) { ::close(memory); }};
}

void forget_authorities() {
  const loopback::Server unused([](loopback::Exchange&) {}, {.tls = true});
  static const auto file =
      fs::temp_directory_path() / ("tovren-authorities-" + std::to_string(getpid()));
  std::ofstream(file) << unused.certificate();
  setenv("SSL_CERT_FILE", file.c_str(), 1);  // NOLINT(concurrency-mt-unsafe): before the calls
  std::atexit([] { fs::remove(file); });
}

}  // namespace faults
