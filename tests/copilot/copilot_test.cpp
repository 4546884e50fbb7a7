// From a GitHub credential to an answer, against a stand-in for both endpoints.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <random>

#include <unistd.h>

#include "support.hpp"

namespace {

namespace fs = std::filesystem;
using namespace support;

double unix_now_s() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// A reply to the exchange, its token good for so many seconds.
std::string token(const std::string& text, const char* refresh_in = "1500", double good_s = 1800) {
  return R"({"token":")" + text + R"(","expires_at":)" + std::to_string(unix_now_s() + good_s) + R"(,"refresh_in":)" +
         refresh_in + "}";
}

class Copilot : public testing::Test {
 protected:
  Copilot() {
    for (const char* const name : {"GH_TOKEN", "GITHUB_TOKEN"}) unsetenv(name);
    setenv("XDG_CONFIG_HOME", folder.c_str(), 1);
    setenv("COPILOT_GITHUB_TOKEN", "gho_CREDENTIAL-1", 1);
  }

  ~Copilot() override { fs::remove_all(folder); }

  LLMClient client(int max_retries = 2) const {
    return LLMClient(
        {.provider = "copilot", .base_url = copilot::COPILOT_BASE, .model = "m", .max_retries = max_retries},
        {.transport = transport, .wait = [](double, auto&, auto) {}});
  }

  static std::string chat(const LLMClient& with) {
    return with.chat({{{"role", "user"}, {"content", "Hello"}}}).content;
  }

  static void answer(Exchange& exchange) {
    exchange.reply(200, "data: {\"choices\":[{\"delta\":{\"content\":\"hi\"}}]}\n\n", "text/event-stream");
  }

  std::string numbered() const { return "T-" + std::to_string(exchanges); }

  fs::path folder = fs::temp_directory_path() / ("tovren-copilot-" + std::to_string(getpid()));
  std::function<void(Exchange&)> on_exchange = [this](Exchange& exchange) { exchange.reply(200, token(numbered())); };
  std::function<void(Exchange&)> on_chat = answer;
  std::atomic<int> exchanges = 0;
  Server server{[this](Exchange& exchange) {
    const bool asks_for_token = exchange.request().target == "/copilot_internal/v2/token";
    exchanges += asks_for_token ? 1 : 0;
    asks_for_token ? on_exchange(exchange) : on_chat(exchange);
  }};
  std::shared_ptr<playback::Detour> transport = std::make_shared<playback::Detour>(server.url());
};

TEST_F(Copilot, AnswersWithATokenThatItKeeps) {
  std::map<std::string, std::string> asked;
  std::map<std::string, std::string> sent;
  on_exchange = [&](Exchange& exchange) {
    EXPECT_EQ(exchange.request().method, "GET");
    asked = exchange.request().headers;
    exchange.reply(200, token("tid=1;exp=9:x"));
  };
  on_chat = [&](Exchange& exchange) {
    EXPECT_EQ(exchange.request().target, "/chat/completions");
    sent = exchange.request().headers;
    answer(exchange);
  };
  const LLMClient copilot_client = client();
  EXPECT_EQ(chat(copilot_client) + chat(copilot_client), "hihi");
  EXPECT_EQ(exchanges, 1);
  EXPECT_EQ(asked.at("authorization"), "token gho_CREDENTIAL-1");
  EXPECT_EQ(sent.at("authorization"), "Bearer tid=1;exp=9:x");
  EXPECT_EQ(sent.at("copilot-integration-id"), "vscode-chat");
  for (const char* const name : {"editor-version", "editor-plugin-version", "user-agent"}) {
    EXPECT_EQ(sent.at(name), asked.at(name));
  }
  EXPECT_EQ(transport->meant_for(), (std::set<std::string>{"https://api.github.com", copilot::COPILOT_BASE}));
  // Another credential is another account: its token is asked for.
  setenv("COPILOT_GITHUB_TOKEN", "gho_CREDENTIAL-2", 1);
  EXPECT_EQ(chat(copilot_client), "hi");
  EXPECT_EQ(asked.at("authorization"), "token gho_CREDENTIAL-2");
}

TEST_F(Copilot, RenewsATokenNearItsEnd) {
  const std::tuple<const char*, double, const char*, int> cases[] = {
      // what, seconds to the expiry, the hint, exchanges for two chats
      {"good", 1800, "1500", 1},
      {"to be refreshed", 1800, "0.01", 2},
      {"in its last minute", 50, "1500", 2},
      {"no hint", 1800, "null", 1},
      {"a negative hint", 1800, "-5", 1},
      {"an absurd hint", 1800, "1e300", 1},
      {"a hint of a string", 1800, "\"x\"", 1},
      {"good for ages", 1e17, "1e18", 1}};
  for (const auto& [what, good_s, refresh_in, expected] : cases) {
    exchanges = 0;
    on_exchange = [&good = good_s, &hint = refresh_in](Exchange& exchange) { exchange.reply(200, token("T", hint, good)); };
    const LLMClient copilot_client = client();
    chat(copilot_client);
    std::this_thread::sleep_for(20ms);
    chat(copilot_client);
    EXPECT_EQ(exchanges, expected) << what;
  }
}

TEST_F(Copilot, SurvivesAWallClockThatJumps) {
  double skew_s = 0;
  copilot::CopilotAuth auth({.transport = transport, .unix_time_s = [&] { return unix_now_s() + skew_s; }});
  on_exchange = [&](Exchange& exchange) { exchange.reply(200, token(numbered(), "0.05")); };
  EXPECT_EQ(auth.chat_headers().at("Authorization"), "Bearer T-1");
  skew_s = -1e6;  // back: the token does not become good for longer
  std::this_thread::sleep_for(60ms);
  EXPECT_EQ(auth.chat_headers().at("Authorization"), "Bearer T-2");
  skew_s = 1e6;  // on: a token that has run out by this clock is never sent
  const auto text = text_of<copilot::CopilotError>([&] { std::ignore = auth.chat_headers(); });
  EXPECT_TRUE(contains(text, "clock")) << text;
}

TEST_F(Copilot, RenewsInTheMiddleOfARetryLoopAndAfterARefusal) {
  on_exchange = [&](Exchange& exchange) { exchange.reply(200, token(numbered(), exchanges == 1 ? "0.001" : "99")); };
  on_chat = [&](Exchange& exchange) {
    std::this_thread::sleep_for(5ms);
    const std::string& bearer = exchange.request().headers.at("authorization");
    if (bearer == "Bearer T-1") return exchange.reply(503, "busy");
    if (bearer == "Bearer T-2") return exchange.reply(401, "token T-2 is refused, says T-1");
    answer(exchange);
  };
  const LLMClient copilot_client = client();
  const auto text = text_of<llm::LLMError>([&] { chat(copilot_client); });
  EXPECT_TRUE(text.starts_with("LLM request failed with HTTP 401")) << text;
  EXPECT_FALSE(contains(text, "T-1") || contains(text, "T-2")) << text;
  EXPECT_EQ(chat(copilot_client), "hi");
  EXPECT_EQ(exchanges, 3);
}

TEST_F(Copilot, DropsARefusedTokenWhoseRefusalNeverEnds) {
  on_chat = [&](Exchange& exchange) {
    if (exchanges > 1) return answer(exchange);
    exchange.send("HTTP/1.1 401 No\r\nContent-Length: 9\r\n\r\n");
    exchange.stall();
  };
  const LLMClient copilot_client = client();
  EXPECT_THROW(std::ignore = copilot_client.chat({}, {.deadline = http::Clock::now() + 100ms}), llm::LLMTimeout);
  EXPECT_EQ(chat(copilot_client), "hi");
}

TEST_F(Copilot, SaysWhatToDoWhenThereIsNoToken) {
  const std::tuple<int, const char*, const char*> cases[] = {
      {401, "{}", "Sign in to Copilot"},
      {403, "{}", "personal access tokens are not accepted"},
      {404, "{}", "the account needs Copilot"},
      {302, "", "could not be fetched"},
      {200, "tid=TOKEN-1", "cannot be read"},
      {200, "[\"TOKEN-1\"]", "no token"},
      {200, R"({"token":"TOKEN-1"})", "no expiry"},
      {200, R"({"token":7,"expires_at":9e9})", "no token"},
      {200, R"({"token":"TOKEN-1\n","expires_at":9e9})", "no token"},
      {200, R"({"token":"TOKEN-1","expires_at":1})", "clock"},
      {503, "", "LLM call failed after 3 tries"}};
  on_chat = [](Exchange& exchange) { ADD_FAILURE(), exchange.close(); };
  for (const auto& [status, body, told] : cases) {
    SCOPED_TRACE(told);
    exchanges = 0;
    on_exchange = [&status = status, &body = body](Exchange& exchange) { exchange.reply(status, body); };
    try {
      chat(client());
      ADD_FAILURE();
    } catch (const llm::LLMError& error) {
      EXPECT_TRUE(contains(error.what(), told) && !contains(error.what(), "TOKEN-1")) << error.what();
      if (status == 503) continue;
      EXPECT_THROW(std::rethrow_if_nested(error), copilot::CopilotError);
      EXPECT_EQ(exchanges, 1);
    }
  }
  unsetenv("COPILOT_GITHUB_TOKEN");
  EXPECT_FALSE(client().is_configured());
  EXPECT_EQ(text_of<copilot::CopilotError>([&] { std::ignore = copilot::CopilotAuth().chat_headers(); }),
            copilot::NO_CREDENTIAL);
}

TEST_F(Copilot, FindsTheCredentialWhereItStands) {
  const fs::path files = folder / "github-copilot";
  fs::create_directories(files);
  const auto used = [&] {
    std::string credential = "none";
    on_exchange = [&](Exchange& exchange) {
      credential = exchange.request().headers.at("authorization").substr(6);
      exchange.reply(200, token("T"));
    };
    copilot::CopilotAuth auth({.transport = transport});
    if (auth.is_available()) std::ignore = auth.chat_headers();
    return credential;
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
  std::ofstream(files / "hosts.json") << R"({"github.com":{"oauth_token":"from hosts"}})";
  for (const char* const text : {"", "{", "[1]", R"({"github.com":7})", R"({"github.com":{"oauth_token":7}})",
                                 R"({"github.community:x":{"oauth_token":"wrong"}})"}) {
    std::ofstream(files / "apps.json") << text;
    EXPECT_EQ(used(), "from hosts") << text;
  }
  std::ofstream(files / "apps.json") << R"({"x":{"oauth_token":"x"},"github.com:Iv1":{"oauth_token":"from apps"}})";
  EXPECT_EQ(used(), "from apps");
  fs::remove(files / "apps.json");
  fs::create_directory(files / "apps.json");
  EXPECT_EQ(used(), "from hosts");
  unsetenv("XDG_CONFIG_HOME");
  setenv("HOME", (folder / "home").c_str(), 1);
  fs::create_directories(folder / "home" / ".config");
  fs::rename(files, folder / "home" / ".config" / "github-copilot");
  EXPECT_EQ(used(), "from hosts");
}

TEST_F(Copilot, MakesOneExchangeForThreadsThatNeedOneTogether) {
  for (const bool fails : {false, true}) {
    exchanges = 0;
    on_exchange = [&](Exchange& exchange) {
      exchange.pause(150ms);
      exchange.reply(fails ? 401 : 200, token("T"));
    };
    copilot::CopilotAuth auth({.transport = transport});
    std::atomic<int> failures = 0;
    in_threads(8, [&] {
      try {
        std::ignore = auth.chat_headers();
      } catch (const copilot::CopilotError&) {
        ++failures;
      }
    });
    EXPECT_EQ(failures, fails ? 8 : 0);
    EXPECT_EQ(exchanges, 1);
  }
}

TEST_F(Copilot, LetsEachCallEndAnExchangeForItselfAlone) {
  std::atomic<bool> answering = false;
  on_exchange = [&](Exchange& exchange) {
    for (int i = 0; i < 100 && !answering; ++i) exchange.pause(10ms);
    exchange.reply(200, token("T"));
  };
  copilot::CopilotAuth auth({.transport = transport});
  const auto end = http::Clock::now() + 100ms;
  std::atomic<int> ended = 0;
  const auto ask = [&](const copilot::CallBounds& bounds) {
    try {
      EXPECT_EQ(auth.chat_headers(bounds).at("Authorization"), "Bearer T");
    } catch (const http::Error&) {
      EXPECT_LT(seconds_since(end), 0.05);
      ++ended;
    }
  };
  // The first makes the exchange, the others wait for it; the first two give up.
  std::jthread maker(ask, copilot::CallBounds{.should_stop = [=] { return http::Clock::now() >= end; }});
  std::this_thread::sleep_for(30ms);
  std::jthread waiter(ask, copilot::CallBounds{.deadline = end});
  std::jthread heir(ask, copilot::CallBounds{});
  maker.join();
  waiter.join();
  EXPECT_EQ(ended, 2);
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
  on_chat = [&](Exchange& exchange) {
    const auto kind = random() % 4;
    if (kind < 2) return exchange.reply(kind == 0 ? 500 : 418, echo);
    if (kind == 2) return exchange.reply(200, "{\"error\":\"" + echo + "\"}");
    exchange.reply(200, "data: {\"error\":\"" + echo + "\"}\n\n", "text/event-stream");
  };
  on_exchange = [&](Exchange& exchange) {
    exchange_fails ? on_chat(exchange) : exchange.reply(200, token(secrets[1], "0.001"));
  };
  const LLMClient copilot_client = client(0);
  for (int round = 0; round < 300; ++round) {
    echo.clear();
    for (int i = 0; i < 3; ++i) {
      for (const char c : secrets[random() % 2] + " ") {
        echo += c != '/' ? std::string(1, c) : random() % 2 == 0 ? "\\/"
                                                                 : "\\u002f";
      }
    }
    exchange_fails = round == 0 || random() % 3 == 0;  // the first before any token is known
    const auto text = text_of<llm::LLMError>([&] { chat(copilot_client); });
    for (const std::string& secret : secrets) EXPECT_FALSE(contains(text, secret.substr(0, 5))) << text;
  }
}

TEST_F(Copilot, ServesManyThreadsWhileItsTokenKeepsRunningOut) {
  on_exchange = [&](Exchange& exchange) { exchange.reply(200, token(numbered(), "0.003")); };
  const LLMClient copilot_client = client();
  std::atomic<int> answered = 0;
  in_threads(16, [&] {
    for (int i = 0; i < 20; ++i) answered += chat(copilot_client) == "hi" ? 1 : 0;
  });
  EXPECT_EQ(answered, 320);
  EXPECT_GT(exchanges, 1);
}

}  // namespace
