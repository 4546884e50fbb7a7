// From a GitHub credential to an answer, against a stand-in for both endpoints.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "engines/copilot/credential.hpp"
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
    return with.chat({llm::user("Hello")}).content();
  }

  static void answer(Exchange& exchange) {
    exchange.reply(200, "data: {\"choices\":[{\"delta\":{\"content\":\"hi\"}}]}\n\n", "text/event-stream");
  }

  // What a sign-in in an editor leaves behind.
  void sign_in(const std::string& apps, const std::string& hosts = "{}") const {
    fs::create_directories(files);
    std::ofstream(files / "apps.json") << apps;
    std::ofstream(files / "hosts.json") << hosts;
  }

  static std::string entry(const std::string& credential, const std::string& application = "") {
    return "\"github.com" + application + "\":{\"oauth_token\":\"" + credential + "\"}";
  }

  std::string numbered() const { return "T-" + std::to_string(exchanges); }

  fs::path folder = fs::temp_directory_path() / ("tovren-copilot-" + std::to_string(getpid()));
  fs::path files = folder / "github-copilot";
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
  unsetenv("COPILOT_GITHUB_TOKEN");
  const LLMClient copilot_client = client();
  sign_in("{" + entry("gho_CREDENTIAL-1") + "}");
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
  sign_in("{" + entry("gho_CREDENTIAL-2") + "}");
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
  EXPECT_TRUE(text.starts_with(
      "LLM request failed with HTTP 401 (Copilot no longer accepts its "
      "token; call again to get a new one)"))
      << text;
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
  const std::string limit = R"({"message":"API Rate Limit exceeded for TOKEN-1"})";
  const std::tuple<int, std::string, const char*, int> cases[] = {
      // status, body, what is told, exchanges
      {401, "{}", "Sign in to Copilot", 1},
      {403, "{}", "personal access tokens are not accepted", 1},
      {404, limit, "the account needs Copilot", 1},
      {302, "", "a redirect, which is not followed", 1},
      {418, "TOKEN-1", "could not be fetched: GitHub's endpoint answered HTTP 418;", 1},
      {200, "tid=TOKEN-1", "cannot be read", 1},
      {200, R"({"token":"TOKEN-1"})", "lacks a token or its expiry", 1},
      {200, R"({"token":7,"expires_at":9e9})", "lacks a token or its expiry", 1},
      {200, R"({"token":"TOKEN-1\n","expires_at":9e9})", "lacks a token or its expiry", 1},
      {200, R"({"token":"TOKEN-1","expires_at":1})", "clock", 1},
      {403, limit, "GitHub's Copilot token endpoint: HTTP 403 (GitHub limits the rate", 3},
      {429, "TOKEN-1", "GitHub's Copilot token endpoint: HTTP 429 (GitHub limits the rate", 3},
      {503, "TOKEN-1", "GitHub's Copilot token endpoint: HTTP 503 (GitHub failed", 3},
      {200, R"({"token":"TOKEN-1)", "GitHub's Copilot token endpoint: reply breaks off", 3}};
  on_chat = [](Exchange& exchange) { ADD_FAILURE(), exchange.close(); };
  for (const auto& [status, body, told, expected] : cases) {
    SCOPED_TRACE(told);
    exchanges = 0;
    on_exchange = [&status = status, &body = body](Exchange& exchange) {
      exchange.reply(status, body);
    };
    const auto text = text_of<llm::LLMError>([&] { chat(client()); });
    EXPECT_TRUE(contains(text, told) && !contains(text, "TOKEN-1")) << text;
    EXPECT_EQ(exchanges, expected);
  }
  on_exchange = [](Exchange& exchange) { exchange.reply(401, ""); };
  try {
    chat(client());
  } catch (const std::nested_exception& error) {
    EXPECT_THROW(error.rethrow_nested(), copilot::CopilotError);
  }
  unsetenv("COPILOT_GITHUB_TOKEN");
  EXPECT_FALSE(client().is_configured());
  EXPECT_EQ(text_of<copilot::CopilotError>([&] { std::ignore = copilot::CopilotAuth().chat_headers(); }),
            copilot::NO_CREDENTIAL);
}

TEST_F(Copilot, FindsCredentialsInTheirOrder) {
  const auto found = [] {
    std::string all;
    for (const auto& credential : copilot::CredentialSources().find()) all += credential + ";";
    return all;
  };
  const copilot::CredentialSources before;
  setenv("GITHUB_TOKEN", "third", 1);
  setenv("GH_TOKEN", " second\n", 1);
  EXPECT_EQ(found(), "gho_CREDENTIAL-1;second;third;");
  EXPECT_EQ(before.find(), copilot::Credentials{"gho_CREDENTIAL-1"});
  setenv("GITHUB_TOKEN", "second", 1);
  EXPECT_EQ(found(), "gho_CREDENTIAL-1;second;");
  for (const char* const n : {"COPILOT_GITHUB_TOKEN", "GH_TOKEN", "GITHUB_TOKEN"}) unsetenv(n);
  std::string many;
  for (const char c : std::string("abcdefghijkl")) {
    many += (many.empty() ? "" : ",") + entry({c}, {':', c});
  }
  const std::pair<std::string, const char*> files_of_apps[] = {
      {"", "hosts;"},
      {"{", "hosts;"},
      {"[1]", "hosts;"},
      {R"({"github.com":7})", "hosts;"},
      {R"({"github.com":{"oauth_token":7}})", "hosts;"},
      {R"({"github.community:x":{"oauth_token":"wrong"},"x":{"oauth_token":"x"}})", "hosts;"},
      {"{" + entry("hosts", ":2") + "," + entry("b", ":1") + "," + entry("a") + "}", "a;b;hosts;"},
      {"{" + entry("a") + "}" + std::string(1U << 20U, ' '), "hosts;"},
      {"{" + many + "}", "a;b;c;d;e;f;g;h;"}};
  for (const auto& [apps, expected] : files_of_apps) {
    sign_in(apps, "{" + entry("hosts") + "}");
    EXPECT_EQ(found(), expected) << apps.substr(0, 200);
  }
  fs::remove(files / "apps.json");
  ASSERT_EQ(mkfifo((files / "apps.json").c_str(), 0600), 0);
  EXPECT_EQ(found(), "hosts;");  // and nobody waits for a writer
  unsetenv("XDG_CONFIG_HOME");
  setenv("HOME", (folder / "home").c_str(), 1);
  fs::create_directories(folder / "home" / ".config");
  fs::rename(files, folder / "home" / ".config" / "github-copilot");
  EXPECT_EQ(found(), "hosts;");
}

TEST_F(Copilot, GivesEachCredentialItsTurn) {
  const std::tuple<int, int, const char*, int> cases[] = {
      // statuses of the first two of three, what comes of it, exchanges
      {200, 200, "Bearer gho_1", 1},
      {401, 200, "Bearer gho_2", 2},
      {403, 404, "Bearer gho_3", 3},
      {503, 200, "HTTP 503", 1},
      {500, 401, "HTTP 500", 1},
      {401, 503, "HTTP 503", 2}};
  unsetenv("COPILOT_GITHUB_TOKEN");
  sign_in("{" + entry("gho_1") + "}", "{" + entry("gho_2") + "," + entry("gho_3", ":Iv1") + "}");
  for (const auto& [first, second, end, expected] : cases) {
    exchanges = 0;
    on_exchange = [&first = first, &second = second](Exchange& exchange) {
      const std::string bearer = exchange.request().headers.at("authorization").substr(6);
      exchange.reply(bearer == "gho_1" ? first : bearer == "gho_2" ? second
                                                                   : 200,
                     token(bearer));
    };
    copilot::CopilotAuth auth({.transport = transport});
    const auto ask = [&] {
      try {
        return auth.chat_headers().at("Authorization");
      } catch (const http::Retryable& error) {
        return std::string(error.what());
      }
    };
    EXPECT_TRUE(contains(ask(), end)) << end;
    EXPECT_EQ(exchanges, expected) << end;
    if (!contains(end, "Bearer")) continue;
    EXPECT_EQ(ask(), end);  // what was refused is not asked about again
    EXPECT_EQ(exchanges, expected) << end;
    sign_in("{" + entry("gho_0") + "," + entry("gho_1", ":x") + "}");
    EXPECT_EQ(ask(), "Bearer gho_0") << "a token of another account after " << end;
    sign_in("{" + entry("gho_1") + "}", "{" + entry("gho_2") + "," + entry("gho_3", ":Iv1") + "}");
  }
  exchanges = 0;
  on_exchange = [&](Exchange& exchange) { exchange.reply(exchanges == 1 ? 401 : 403, "gho_1"); };
  copilot::CopilotAuth auth({.transport = transport});
  const auto text = text_of<copilot::CopilotError>([&] { std::ignore = auth.chat_headers(); });
  EXPECT_TRUE(contains(text, "(HTTP 401)") && contains(text, "3 credentials")) << text;
  EXPECT_FALSE(contains(text, "gho_")) << text;
  EXPECT_EQ(exchanges, 3);
  EXPECT_EQ(auth.secrets(), (http::Secrets{"gho_1", "gho_2", "gho_3"}));
  // One that no header can hold is passed over without a request.
  sign_in("{" + entry(R"(gho\n_0)") + "}", "{" + entry("gho_2") + "}");
  on_exchange = [](Exchange& exchange) { exchange.reply(200, token("T")); };
  EXPECT_EQ(auth.chat_headers().at("Authorization"), "Bearer T");
  EXPECT_EQ(exchanges, 4);
}

TEST_F(Copilot, UsesAGoodTokenWhileItsRenewalFails) {
  const std::pair<const char*, std::function<void(Exchange&)>> cases[] = {
      {"refused", [](Exchange& exchange) { exchange.reply(401, ""); }},
      {"in trouble", [](Exchange& exchange) { exchange.reply(503, ""); }},
      {"broken", [](Exchange& exchange) { exchange.reset(); }},
      {"no token", [](Exchange& exchange) { exchange.reply(200, "{}"); }},
      {"silent", [](Exchange& exchange) { exchange.stall(); }}};
  std::atomic<std::size_t> at = 0;
  on_exchange = [&](Exchange& exchange) {
    if (exchanges == 1) return exchange.reply(200, token("T-1", "1e-9"));
    cases[at].second(exchange);
  };
  for (; at < std::size(cases); ++at) {
    SCOPED_TRACE(cases[at].first);
    exchanges = 0;
    copilot::CopilotAuth auth({.transport = transport});
    const auto start = http::Clock::now();
    for (int i = 0; i < 4; ++i) {
      EXPECT_EQ(auth.chat_headers({.deadline = start + 2s}).at("Authorization"), "Bearer T-1");
    }
    EXPECT_LT(seconds_since(start), 1.5);  // not all the time that there is
    EXPECT_EQ(exchanges, 2);
    auth.drop_token({{"Authorization", "Bearer T-1"}});
    EXPECT_ANY_THROW(std::ignore = auth.chat_headers({.deadline = http::Clock::now() + 100ms}));
  }
}

TEST_F(Copilot, TriesARenewalAgainBeforeTheTokenEnds) {
  on_exchange = [&](Exchange& exchange) {
    exchange.reply(exchanges == 2 ? 503 : 200, token(numbered(), "1e-9", 62));  // good for 2 s
  };
  copilot::CopilotAuth auth({.transport = transport});
  const auto ask = [&] { return auth.chat_headers().at("Authorization"); };
  EXPECT_EQ(ask() + ask() + ask(), "Bearer T-1Bearer T-1Bearer T-1");
  EXPECT_EQ(exchanges, 2);
  std::this_thread::sleep_for(1050ms);
  EXPECT_EQ(ask(), "Bearer T-3");
}

TEST_F(Copilot, LetsOthersUseAGoodTokenDuringItsRenewal) {
  std::promise<void> renewing;
  on_exchange = [&](Exchange& exchange) {
    if (exchanges != 2) return exchange.reply(200, token(numbered(), "1e-9"));
    renewing.set_value();
    exchange.stall();
  };
  copilot::CopilotAuth auth({.transport = transport});
  const auto ask = [&](const http::StopTest& stop = {}) {
    return auth.chat_headers({.should_stop = stop}).at("Authorization");
  };
  EXPECT_EQ(ask(), "Bearer T-1");
  std::atomic<bool> stopped = false;
  auto renewal = std::async(std::launch::async, ask, [&] { return stopped.load(); });
  renewing.get_future().get();
  const auto start = http::Clock::now();
  EXPECT_EQ(ask(), "Bearer T-1");
  EXPECT_LT(seconds_since(start), 2);
  stopped = true;
  EXPECT_THROW(renewal.get(), http::Stopped);
}

TEST_F(Copilot, DoesNotFallBackOnATokenThatWasRefusedMeanwhile) {
  std::unique_ptr<copilot::CopilotAuth> auth;
  on_exchange = [&](Exchange& exchange) {
    if (exchanges == 2) auth->drop_token({{"Authorization", "Bearer T-1"}});
    exchange.reply(exchanges == 2 ? 503 : 200, token(numbered(), "1e-9"));
  };
  auth = std::make_unique<copilot::CopilotAuth>(copilot::AuthOptions{.transport = transport});
  EXPECT_EQ(auth->chat_headers().at("Authorization"), "Bearer T-1");
  EXPECT_EQ(auth->chat_headers().at("Authorization"), "Bearer T-3");
}

TEST_F(Copilot, ServesAChildOfABusyProcess) {
  transport = std::make_shared<playback::Detour>(
      server.url(), std::shared_ptr<http::Transport>(&http::default_transport(), [](auto*) {}));
  std::promise<void> under_way;
  std::atomic<bool> done = false;
  on_exchange = [&](Exchange& exchange) {
    if (exchanges > 1) return exchange.reply(200, token(numbered()));
    under_way.set_value();
    exchange.stall();
  };
  copilot::CopilotAuth auth({.transport = transport});
  const auto give_up = [&] { return done.load(); };
  std::vector<std::jthread> threads;
  threads.reserve(4);
  for (int i = 0; i < 4; ++i) {  // one makes the exchange, the others wait for it
    threads.emplace_back([&] {
      EXPECT_THROW(std::ignore = auth.chat_headers({.should_stop = give_up}), http::Stopped);
    });
  }
  under_way.get_future().get();
  for (int i = 0; i < 5; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      try {
        _exit(auth.chat_headers({.deadline = http::Clock::now() + 5s}).empty() ? 1 : 0);
      } catch (...) {
        _exit(2);
      }
    }
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
  done = true;
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
  on_exchange = [&](Exchange& exchange) { exchanges == 1 ? exchange.stall() : exchange.reply(200, token("T")); };
  copilot::CopilotAuth auth({.transport = transport});
  const auto ask = [&](const copilot::CallBounds& bounds) {
    return std::async(std::launch::async, [&auth, bounds] { return auth.chat_headers(bounds).at("Authorization"); });
  };
  // The first makes the exchange, the others wait for it; the first two give up.
  const auto end = http::Clock::now() + 200ms;
  auto maker = ask({.should_stop = [=] { return http::Clock::now() >= end; }});
  while (exchanges == 0) std::this_thread::sleep_for(1ms);
  auto waiter = ask({.deadline = end - 100ms});
  auto heir = ask({});
  EXPECT_THROW(waiter.get(), http::DeadlineExceeded);
  EXPECT_LT(seconds_since(end - 100ms), 0.05);
  EXPECT_THROW(maker.get(), http::Stopped);
  EXPECT_LT(seconds_since(end), 0.05);
  EXPECT_EQ(heir.get(), "Bearer T");
  EXPECT_EQ(exchanges, 2);
}

TEST_F(Copilot, KeepsBothSecretsOutOfEveryErrorText) {
  const std::string echo = R"(gho_CREDENTIAL-1 tid=TOKEN\/1;exp=9:x tid=TOKEN%2F1;exp=9:x)";
  int kind = 0;
  on_chat = [&](Exchange& exchange) {
    if (kind < 2) return exchange.reply(kind == 0 ? 500 : 418, echo);
    if (kind == 2) return exchange.reply(200, "{\"error\":\"" + echo + "\"}");
    exchange.reply(200, "data: {\"error\":\"" + echo + "\"}\n\n", "text/event-stream");
  };
  on_exchange = [](Exchange& exchange) { exchange.reply(200, token("tid=TOKEN/1;exp=9:x")); };
  for (; kind < 4; ++kind) {
    const auto text = text_of<llm::LLMError>([&] { chat(client(0)); });
    EXPECT_FALSE(contains(text, "gho_C") || contains(text, "tid=T")) << text;
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
