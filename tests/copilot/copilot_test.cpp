// From a GitHub credential to an answer, against a stand-in for both endpoints.
#include "tovren_mapstead/engines/copilot.hpp"

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>
#include <thread>

#include "loopback/server.hpp"
#include "support.hpp"
#include "tovren_mapstead/engines/llm.hpp"

namespace {

using namespace support;
namespace copilot = tovren_mapstead::engines::copilot;
namespace llm = tovren_mapstead::engines::llm;
using loopback::Exchange;

const std::string ANSWER = "data: {\"choices\":[{\"delta\":{\"content\":\"hi\"}}]}\n\ndata: [DONE]\n\n";
const llm::Messages HELLO{{{"role", "user"}, {"content", "Hello"}}};

double unix_now_s() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// Carries requests for GitHub's hosts to the stand-in.
class Detour final : public http::Transport {
 public:
  explicit Detour(std::string to) : _to(std::move(to)) {}

  std::unique_ptr<http::Exchange> open(http::Request request, http::Watch& watch) override {
    const std::size_t path = request.url.find('/', std::string("https://").size());
    const std::string host = request.url.substr(0, path);
    EXPECT_TRUE(host == "https://api.github.com" || host == copilot::COPILOT_BASE) << host;
    request.url = _to + request.url.substr(path);
    return _transport->open(std::move(request), watch);
  }

 private:
  std::string _to;
  std::shared_ptr<http::Transport> _transport = http::make_transport();
};

class Copilot : public testing::Test {
 protected:
  Copilot() {
    for (const char* const name : {"GH_TOKEN", "GITHUB_TOKEN"}) unsetenv(name);
    setenv("XDG_CONFIG_HOME", folder.c_str(), 1);
    setenv("COPILOT_GITHUB_TOKEN", "gho_CREDENTIAL-1", 1);
    std::filesystem::remove_all(folder);
  }

  ~Copilot() override { std::filesystem::remove_all(folder); }

  llm::LLMClient client(int max_retries = 2) const {
    return llm::LLMClient({.provider = "copilot",
                           .base_url = copilot::COPILOT_BASE,
                           .model = "m",
                           .max_retries = max_retries},
                          {.transport = transport, .wait = [](double, const auto&, auto) {}});
  }

  // A reply to the exchange, its token good for so many seconds.
  static std::string token(const std::string& text, double good_s, const char* refresh_in = "1500") {
    return R"({"token":")" + text + R"(","expires_at":)" + std::to_string(unix_now_s() + good_s) +
           R"(,"refresh_in":)" + refresh_in + "}";
  }

  std::filesystem::path folder =
      std::filesystem::temp_directory_path() / ("tovren-copilot-" + std::to_string(getpid()));
  std::function<void(Exchange&)> on_exchange = [](Exchange& exchange) {
    exchange.reply(200, token("tid=TOKEN-1;exp=9:x", 1800));
  };
  std::function<void(Exchange&)> on_chat = [](Exchange& exchange) {
    exchange.reply(200, ANSWER, "text/event-stream");
  };
  std::atomic<int> exchanges = 0;
  std::mutex mutex;
  std::vector<loopback::Request> chats;
  loopback::Server server{[this](Exchange& exchange) {
    if (exchange.request().target == "/copilot_internal/v2/token") {
      ++exchanges;
      return on_exchange(exchange);
    }
    {
      const std::lock_guard lock(mutex);
      chats.push_back(exchange.request());
    }
    on_chat(exchange);
  }};
  std::shared_ptr<Detour> transport = std::make_shared<Detour>(server.url());
};

TEST_F(Copilot, AnswersWithATokenThatItKeeps) {
  const llm::LLMClient copilot_client = client();
  on_exchange = [](Exchange& exchange) {
    EXPECT_EQ(exchange.request().method, "GET");
    EXPECT_EQ(exchange.request().headers.at("authorization"), "token gho_CREDENTIAL-1");
    exchange.reply(200, token("tid=TOKEN-1;exp=9:x", 1800));
  };
  EXPECT_EQ(copilot_client.chat(HELLO).content, "hi");
  EXPECT_EQ(copilot_client.chat(HELLO).content, "hi");
  EXPECT_EQ(exchanges, 1);
  const auto& headers = chats.at(1).headers;
  EXPECT_EQ(chats.at(1).target, "/chat/completions");
  EXPECT_EQ(headers.at("authorization"), "Bearer tid=TOKEN-1;exp=9:x");
  EXPECT_EQ(headers.at("copilot-integration-id"), "vscode-chat");
  for (const char* const name : {"editor-version", "editor-plugin-version", "openai-intent"}) {
    EXPECT_FALSE(headers.at(name).empty());
  }
  // Another credential is another account: its token is asked for.
  setenv("COPILOT_GITHUB_TOKEN", "gho_CREDENTIAL-2", 1);
  on_exchange = [](Exchange& exchange) {
    EXPECT_EQ(exchange.request().headers.at("authorization"), "token gho_CREDENTIAL-2");
    exchange.reply(200, token("TOKEN-2", 1800));
  };
  EXPECT_EQ(copilot_client.chat(HELLO).content, "hi");
  EXPECT_EQ(exchanges, 2);
}

TEST_F(Copilot, RenewsATokenNearItsEnd) {
  struct Case {
    const char* what;
    double good_s;
    const char* refresh_in;
    int exchanges;  // for two chats
  };
  const Case cases[] = {
      {"good", 1800, "1500", 1},        {"to be refreshed", 1800, "0.01", 2},
      {"in its last minute", 50, "1500", 2}, {"no hint", 1800, "null", 1},
      {"a negative hint", 1800, "-5", 1},    {"an absurd hint", 1800, "1e300", 1},
      {"a hint of a string", 1800, "\"x\"", 1}, {"good for ages", 1e17, "1e18", 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    exchanges = 0;
    on_exchange = [&](Exchange& exchange) { exchange.reply(200, token("T", c.good_s, c.refresh_in)); };
    const llm::LLMClient copilot_client = client();
    std::ignore = copilot_client.chat(HELLO);
    std::this_thread::sleep_for(20ms);
    std::ignore = copilot_client.chat(HELLO);
    EXPECT_EQ(exchanges, c.exchanges);
  }
}

TEST_F(Copilot, SurvivesAWallClockThatJumps) {
  double skew_s = 0;
  copilot::CopilotAuth auth({.transport = transport, .unix_time_s = [&] { return unix_now_s() + skew_s; }});
  on_exchange = [&](Exchange& exchange) {
    exchange.reply(200, token(exchanges == 1 ? "T-1" : "T-2", 1800, "0.05"));
  };
  EXPECT_EQ(auth.chat_headers().at("Authorization"), "Bearer T-1");
  skew_s = -1e6;  // back: the token does not become good for longer
  std::this_thread::sleep_for(60ms);
  EXPECT_EQ(auth.chat_headers().at("Authorization"), "Bearer T-2");
  skew_s = 1e6;  // on: a token that has run out by this clock is never sent
  EXPECT_TRUE(contains(text_of<copilot::CopilotError>([&] { std::ignore = auth.chat_headers(); }), "clock"));
}

TEST_F(Copilot, RenewsInTheMiddleOfARetryLoopAndAfterARefusal) {
  on_exchange = [&](Exchange& exchange) {
    exchange.reply(200, token("T-" + std::to_string(exchanges), 1800, exchanges == 1 ? "0.001" : "99"));
  };
  on_chat = [&](Exchange& exchange) {
    std::this_thread::sleep_for(5ms);
    const std::string& bearer = exchange.request().headers.at("authorization");
    if (bearer == "Bearer T-1") return exchange.reply(503, "busy");
    if (bearer == "Bearer T-2") return exchange.reply(401, "token T-2 is refused, says T-1");
    exchange.reply(200, ANSWER, "text/event-stream");
  };
  const llm::LLMClient copilot_client = client();
  const auto text = text_of<llm::LLMError>([&] { std::ignore = copilot_client.chat(HELLO); });
  EXPECT_TRUE(text.starts_with("LLM request failed with HTTP 401")) << text;
  EXPECT_FALSE(contains(text, "T-1") || contains(text, "T-2")) << text;
  EXPECT_EQ(copilot_client.chat(HELLO).content, "hi");
  EXPECT_EQ(exchanges, 3);
}

TEST_F(Copilot, SaysWhatToDoWhenThereIsNoToken) {
  struct Case {
    const char* what;
    int status;
    std::string body;
    const char* told;
    int exchanges;
  };
  const Case cases[] = {
      {"refused", 401, "{}", "Sign in to Copilot", 1},
      {"a personal token", 403, "{}", "personal access tokens are not accepted", 1},
      {"no Copilot", 404, "{}", "the account needs Copilot", 1},
      {"a redirect", 302, "", "could not be fetched", 1},
      {"no JSON", 200, "tid=TOKEN-1", "cannot be read", 1},
      {"no object", 200, "[\"TOKEN-1\"]", "no token", 1},
      {"no expiry", 200, R"({"token":"TOKEN-1"})", "no expiry", 1},
      {"no text", 200, R"({"token":7,"expires_at":9e9})", "no token", 1},
      {"a line break", 200, R"({"token":"TOKEN-1\n","expires_at":9e9})", "no token", 1},
      {"run out", 200, R"({"token":"TOKEN-1","expires_at":1})", "clock", 1},
      {"busy", 503, "TOKEN-1", "LLM call failed after 3 tries", 3},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    exchanges = 0;
    on_exchange = [&](Exchange& exchange) { exchange.reply(c.status, c.body); };
    const llm::LLMClient copilot_client = client();
    try {
      std::ignore = copilot_client.chat(HELLO);
      ADD_FAILURE();
    } catch (const llm::LLMError& error) {
      EXPECT_TRUE(contains(error.what(), c.told)) << error.what();
      EXPECT_TRUE(c.status == 503 || !contains(error.what(), "TOKEN-1")) << error.what();
      if (c.exchanges == 1) {
        EXPECT_THROW(std::rethrow_if_nested(error), copilot::CopilotError);
      }
    }
    EXPECT_EQ(exchanges, c.exchanges);
    EXPECT_TRUE(chats.empty());
  }
  unsetenv("COPILOT_GITHUB_TOKEN");
  EXPECT_FALSE(client().is_configured());
  EXPECT_EQ(text_of<copilot::CopilotError>([&] { std::ignore = copilot::CopilotAuth().chat_headers(); }),
            copilot::NO_CREDENTIAL);
}

TEST_F(Copilot, FindsTheCredentialWhereItStands) {
  const auto write = [&](const char* name, const std::string& text) {
    std::filesystem::create_directories(folder / "github-copilot");
    std::ofstream(folder / "github-copilot" / name) << text;
  };
  const auto used = [&] {
    std::string bearer;
    on_exchange = [&](Exchange& exchange) {
      bearer = exchange.request().headers.at("authorization").substr(6);
      exchange.reply(200, token("T", 1800));
    };
    copilot::CopilotAuth auth({.transport = transport});
    if (!auth.is_available()) return std::string("none");
    std::ignore = auth.chat_headers();
    return bearer;
  };
  setenv("GITHUB_TOKEN", "third", 1);
  setenv("GH_TOKEN", " second\n", 1);
  EXPECT_EQ(used(), "gho_CREDENTIAL-1");
  setenv("COPILOT_GITHUB_TOKEN", "", 1);
  EXPECT_EQ(used(), "second");
  unsetenv("GH_TOKEN");
  EXPECT_EQ(used(), "third");
  unsetenv("GITHUB_TOKEN");
  EXPECT_EQ(used(), "none");
  write("hosts.json", R"({"github.com":{"oauth_token":"from hosts"}})");
  EXPECT_EQ(used(), "from hosts");
  for (const char* const text : {"", "{", "[1]", R"({"github.com":7})", R"({"github.com":{"oauth_token":7}})",
                                 R"({"github.community:x":{"oauth_token":"wrong"}})"}) {
    write("apps.json", text);
    EXPECT_EQ(used(), "from hosts") << text;
  }
  write("apps.json", R"({"ghe.example":{"oauth_token":"x"},"github.com:Iv1.a":{"oauth_token":"from apps"}})");
  EXPECT_EQ(used(), "from apps");
  std::filesystem::remove(folder / "github-copilot" / "apps.json");
  std::filesystem::create_directory(folder / "github-copilot" / "apps.json");
  EXPECT_EQ(used(), "from hosts");
  unsetenv("XDG_CONFIG_HOME");
  setenv("HOME", (folder / "home").c_str(), 1);
  std::filesystem::create_directories(folder / "home" / ".config");
  std::filesystem::rename(folder / "github-copilot", folder / "home" / ".config" / "github-copilot");
  EXPECT_EQ(used(), "from hosts");
}

TEST_F(Copilot, MakesOneExchangeForThreadsThatNeedOneTogether) {
  for (const bool fails : {false, true}) {
    exchanges = 0;
    on_exchange = [&](Exchange& exchange) {
      exchange.pause(150ms);
      fails ? exchange.reply(401, "{}") : exchange.reply(200, token("T", 1800));
    };
    copilot::CopilotAuth auth({.transport = transport});
    std::atomic<int> ended = 0;
    std::vector<std::jthread> threads;
    for (int t = 0; t < 8; ++t) {
      threads.emplace_back([&] {
        try {
          std::ignore = auth.chat_headers();
          ended += fails ? 0 : 1;
        } catch (const copilot::CopilotError&) {
          ended += fails ? 1 : 0;
        }
      });
    }
    threads.clear();
    EXPECT_EQ(ended, 8);
    EXPECT_EQ(exchanges, 1);
  }
}

TEST_F(Copilot, LetsEachCallEndAnExchangeForItselfAlone) {
  std::atomic<bool> answering = false;
  on_exchange = [&](Exchange& exchange) {
    while (!answering && exchange.send("")) exchange.pause(5ms);
    exchange.reply(200, token("T", 1800));
  };
  copilot::CopilotAuth auth({.transport = transport});
  const auto end = http::Clock::now() + 100ms;
  // The first makes the exchange, the others wait for it; two of the three give up.
  std::atomic<int> stopped = 0;
  const auto ask = [&](const copilot::CallBounds& bounds) {
    try {
      EXPECT_EQ(auth.chat_headers(bounds).at("Authorization"), "Bearer T");
    } catch (const http::Error&) {
      EXPECT_LT(seconds_since(end), 0.05);
      ++stopped;
    }
  };
  std::jthread maker(ask, copilot::CallBounds{.should_stop = [=] { return http::Clock::now() >= end; }});
  std::this_thread::sleep_for(30ms);
  std::jthread waiter(ask, copilot::CallBounds{.deadline = end});
  std::jthread heir(ask, copilot::CallBounds{});
  maker.join();
  waiter.join();
  EXPECT_EQ(stopped, 2);
  answering = true;
  heir.join();
  EXPECT_EQ(exchanges, 2);
}

TEST_F(Copilot, KeepsBothSecretsOutOfEveryErrorText) {
  const std::string secrets[] = {"gho_CREDENTIAL/1", "tid=TOKEN/1;exp=9:x"};
  setenv("COPILOT_GITHUB_TOKEN", secrets[0].c_str(), 1);
  std::mt19937 random(3);
  std::string echo;
  bool exchange_fails = false;
  const auto spoil = [&](Exchange& exchange) {
    switch (random() % 3) {
      case 0: return exchange.reply(random() % 2 == 0 ? 500 : 418, echo);
      case 1: return exchange.reply(200, "data: {\"error\":\"" + echo + "\"}\n\n", "text/event-stream");
      default: return exchange.reply(200, "{\"error\":\"" + echo + "\"}");
    }
  };
  on_exchange = [&](Exchange& exchange) {
    exchange_fails ? spoil(exchange) : exchange.reply(200, token(secrets[1], 1800, "0.001"));
  };
  on_chat = spoil;
  const llm::LLMClient copilot_client = client(0);
  for (int round = 0; round < 300; ++round) {
    echo.clear();
    for (int i = 0; i < 3; ++i) {
      for (const char c : secrets[random() % 2]) {
        echo += c != '/' ? std::string(1, c) : random() % 2 == 0 ? "\\/" : "\\u002f";
      }
      echo += " ";
    }
    exchange_fails = round > 0 && random() % 3 == 0;
    const auto text = text_of<llm::LLMError>([&] { std::ignore = copilot_client.chat(HELLO); });
    for (const std::string& secret : secrets) EXPECT_FALSE(contains(text, secret.substr(0, 5))) << text;
  }
}

TEST_F(Copilot, ServesManyThreadsWhileItsTokenKeepsRunningOut) {
  on_exchange = [&](Exchange& exchange) {
    exchange.reply(200, token("T-" + std::to_string(exchanges), 1800, "0.003"));
  };
  const llm::LLMClient copilot_client = client();
  std::atomic<int> answered = 0;
  std::vector<std::jthread> threads;
  for (int t = 0; t < 16; ++t) {
    threads.emplace_back([&] {
      for (int i = 0; i < 20; ++i) answered += copilot_client.chat(HELLO).content == "hi" ? 1 : 0;
    });
  }
  threads.clear();
  EXPECT_EQ(answered, 320);
  EXPECT_GT(exchanges, 1);
}

}  // namespace
