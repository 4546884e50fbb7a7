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
using copilot::CallBounds;
using copilot::CopilotAuth;

// The token, or the text of the error.
std::string ask(CopilotAuth& auth, const CallBounds& bounds = {}) {
  try {
    return auth.chat_headers(bounds).at("Authorization").substr(7);
  } catch (const http::Retryable& error) {
    return std::string("transient: ") + error.what();
  } catch (const std::exception& error) {
    return error.what();
  }
}

// Reads no error's text: ThreadSanitizer does not know that threads may share it.
bool gets_token(CopilotAuth& auth) {
  try {
    std::ignore = auth.chat_headers();
    return true;
  } catch (const std::exception&) {
    return false;
  }
}

double unix_now_s() {
  return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

// A reply to the exchange, its token good for so many seconds.
std::string token(const std::string& text, const char* refresh_in = "1500", double good_s = 1800) {
  return R"({"token":")" + text + R"(","expires_at":)" + std::to_string(unix_now_s() + good_s) +
         R"(,"refresh_in":)" + refresh_in + "}";
}

// What a sign-in leaves in an editor's file.
std::string entry(const std::string& credential, const std::string& application = "") {
  return "\"github.com" + application + "\":{\"oauth_token\":\"" + credential + "\"}";
}

class Copilot : public testing::Test {
 protected:
  ~Copilot() override { fs::remove_all(folder); }

  void sign_in(const std::string& apps, const std::string& hosts = "") const {
    unsetenv("COPILOT_GITHUB_TOKEN");
    fs::create_directories(files);
    std::ofstream(files / "apps.json") << "{" << apps << "}";
    std::ofstream(files / "hosts.json") << "{" << hosts << "}";
  }

  // Numbers the tokens. The first one has the hint, the second exchange the status.
  void give(const char* refresh_in, double good_s = 1800, int status = 200) {
    exchanges = 0;
    on_exchange = [=, this](Exchange& exchange) {
      const int number = exchanges;
      exchange.reply(number == 2 ? status : 200,
                     token("T-" + std::to_string(number), number == 1 ? refresh_in : "99", good_s));
    };
  }

  const fs::path folder = [] {
    auto path = fs::temp_directory_path() / ("copilot." + std::to_string(getpid()));
    for (const char* const name : {"GH_TOKEN", "GITHUB_TOKEN"}) unsetenv(name);
    setenv("XDG_CONFIG_HOME", path.c_str(), 1);
    setenv("COPILOT_GITHUB_TOKEN", "gho_1", 1);
    return path;
  }();
  const fs::path files = folder / "github-copilot";
  std::atomic<int> exchanges = 0;
  std::function<void(Exchange&)> on_exchange, on_chat = [](Exchange&exchange) {
    exchange.reply(200, R"({"choices":[{"message":{"content":"hi"}}]})");
  };
  Server server{[this](Exchange& exchange) {
    if (exchange.request().target != "/copilot_internal/v2/token") return on_chat(exchange);
    ++exchanges;
    on_exchange(exchange);
  }};
  std::shared_ptr<http::Transport> transport = loopback::detour(server.url());
  CopilotAuth auth{{.transport = transport}};
  LLMClient client{{.provider = "copilot", .base_url = copilot::COPILOT_BASE, .model = "m"},
                   {.transport = transport, .wait = [](double, auto&, auto) {}}};
};

TEST_F(Copilot, AnswersWithATokenThatItKeeps) {
  std::map<std::string, std::string> asked, sent;
  on_exchange = [&](Exchange& exchange) {
    asked = exchange.request().headers;
    exchange.reply(200, token("tid=1;exp=9:x", "0"));  // no hint when to renew it
  };
  on_chat = [&, answer = on_chat](Exchange& exchange) {
    sent = exchange.request().headers;
    answer(exchange);
  };
  std::string origins;  // that the requests are meant for
  const LLMClient watched(
      client.config(),
      {.transport = loopback::detour(server.url(), http::make_transport(),
                                     [&](const std::string& origin) { origins += origin; })});
  EXPECT_EQ(watched.chat({}).content() + watched.chat({}).content(), "hihi");
  const std::string base = copilot::COPILOT_BASE;
  EXPECT_EQ(origins, "https://api.github.com" + base + base);
  EXPECT_EQ(asked.at("authorization") + asked.at("accept"), "token gho_1application/json");
  EXPECT_EQ(sent.at("authorization"), "Bearer tid=1;exp=9:x");
  EXPECT_EQ(sent.at("copilot-integration-id"), "vscode-chat");
  EXPECT_TRUE(sent.contains("openai-intent"));
  for (const char* const name :
       {"editor-version", "editor-plugin-version", "user-agent", "x-github-api-version"}) {
    EXPECT_EQ(sent.at(name), asked.at(name));
  }
}

TEST_F(Copilot, SurvivesAWallClockThatJumps) {
  double skew_s = 0;
  CopilotAuth fresh({.transport = transport, .unix_time_s = [&] { return unix_now_s() + skew_s; }});
  give("99", 60.1);
  EXPECT_EQ(ask(fresh), "T-1");
  skew_s = -1e6;  // back: the token does not become good for longer
  std::this_thread::sleep_for(150ms);
  EXPECT_EQ(ask(fresh), "T-2");
  skew_s = 1e6;  // on: a token that has run out by this clock is never sent
  EXPECT_TRUE(contains(ask(fresh), "correct the clock"));
}

TEST_F(Copilot, RenewsInTheMiddleOfARetryLoopAndAfterARefusal) {
  give("0.001");
  on_chat = [&, answer = on_chat](Exchange& exchange) {
    std::this_thread::sleep_for(5ms);
    if (exchanges == 1) return exchange.reply(503, "busy");
    if (exchanges > 2) return answer(exchange);
    exchange.reply(401, "T-2 is refused, says T-1 of gho_1");
  };
  EXPECT_EQ(text_of<llm::LLMError>([&] { std::ignore = client.chat({}); }),
            "LLM request failed with HTTP 401 (Copilot no longer accepts its token; call again to "
            "get a new one): *** is refused, says *** of ***");
  EXPECT_EQ(client.chat({}).content(), "hi");
  EXPECT_EQ(exchanges, 3);
}

TEST_F(Copilot, DropsARefusedTokenWhoseRefusalNeverEnds) {
  give("99");
  on_chat = [&, answer = on_chat](Exchange& exchange) {
    if (exchanges > 1) return answer(exchange);
    exchange.send("HTTP/1.1 401 No\r\nContent-Length: 9\r\n\r\n");
    exchange.stall();
  };
  EXPECT_THROW(std::ignore = client.chat({}, {.deadline = http::Clock::now() + 100ms}),
               llm::LLMTimeout);
  EXPECT_EQ(client.chat({}).content(), "hi");
}

TEST_F(Copilot, DropsNoTokenForAnOlderOne) {
  give("0.001");
  const http::Headers older = auth.chat_headers();
  std::this_thread::sleep_for(5ms);
  EXPECT_EQ(ask(auth), "T-2");
  auth.drop_token(older);
  EXPECT_EQ(ask(auth), "T-2");
}

// Other statuses, and replies that are cut or endless, are among the faults of faults_test.cpp.
TEST_F(Copilot, SaysWhatToDoWhenThereIsNoToken) {
  const std::string limit = R"({"message":"API Rate Limit exceeded for gho_1 and TOKEN-1"})";
  const std::string reply = "GitHub's reply to the Copilot token request ";
  const std::tuple<int, std::string, std::string> cases[] = {
      // status, body, how the error's text begins
      {200, "tid=TOKEN-1", reply + "cannot be read"},
      {200, R"({"token":"TOKEN-1"})", reply + "lacks"},
      {200, R"({"token":7,"expires_at":9e9})", reply + "lacks"},
      {200, R"({"token":"TOKEN-1\u007f","expires_at":9e9})", reply + "lacks"},
      {200, R"({"token":"TOKEN-1","expires_at":1})", "GitHub's Copilot token has already expired"},
      {403, limit, "transient: GitHub's Copilot token endpoint: HTTP 403 (GitHub limits the rate"},
      {401, limit, "GitHub refuses the stored credential (HTTP 401): it was revoked"}};
  for (const auto& [status, body, expected] : cases) {
    on_exchange = [code = status, &text = body](auto& exchange) { exchange.reply(code, text); };
    const std::string told = ask(auth);
    EXPECT_TRUE(told.starts_with(expected)) << told << " in place of " << expected;
    EXPECT_FALSE(contains(told, "TOKEN-1") || contains(told, "gho_1")) << told;
  }
}

TEST_F(Copilot, FindsCredentialsInTheirOrder) {
  using Found = copilot::Credentials;
  const auto found = [] { return copilot::CredentialSources().find(); };
  std::string many;
  for (char c = 'b'; c < 'm'; ++c) many += entry({c}, {':', c}) + ",";
  const std::pair<std::string, Found> files_of_apps[] = {
      {R"("github.com":{"oauth_token":7})", {"hosts"}},
      {R"("github.community:x":{"oauth_token":"wrong"})", {"hosts"}},
      {entry("hosts", ":2") + "," + entry("b", ":1") + "," + entry(" "), {"b", "hosts"}},
      {entry("a") + std::string(1U << 20U, ' '), {"hosts"}},
      {many + entry("a"), {"a", "b", "c", "d", "e", "f", "g", "h"}}};
  for (const auto& [apps, expected] : files_of_apps) {
    sign_in(apps, entry("hosts"));
    EXPECT_EQ(found(), expected) << apps.substr(0, 200);
  }
  setenv("XDG_CONFIG_HOME", ".", 1);  // a relative path is no setting
  setenv("HOME", folder.c_str(), 1);
  EXPECT_EQ(found(), Found());
  CopilotAuth fresh({.transport = transport});
  EXPECT_EQ(ask(fresh), copilot::NO_CREDENTIAL);
  fs::create_directory_symlink(folder, folder / ".config");
  EXPECT_EQ(found(), files_of_apps[4].second);
  // A pipe in place of a file: nobody waits for a writer.
  const fs::path pipe = files / "apps.json";
  fs::remove(pipe);
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  setenv("GITHUB_TOKEN", "third", 1);
  setenv("GH_TOKEN", " second\n", 1);
  setenv("COPILOT_GITHUB_TOKEN", "first", 1);
  EXPECT_EQ(found(), (Found{"first", "second", "third", "hosts"}));
}

TEST_F(Copilot, GivesEachCredentialItsTurn) {
  std::map<std::string, int> statuses{
      {"gho_1", 401}, {"gho_2", 404}, {"gho_3", 200}, {"gho_4", 200}, {"gho_5", 503}};
  on_exchange = [&](Exchange& exchange) {
    const std::string credential = exchange.request().headers.at("authorization").substr(6);
    exchange.reply(statuses.at(credential), token(credential));
  };
  // No header can hold the third, so there is no request for it.
  sign_in(entry("gho_2") + "," + entry(R"(gho\n_)", ":x"), entry("gho_3"));
  EXPECT_EQ(ask(auth), "gho_3");
  EXPECT_EQ(ask(auth), "gho_3");
  EXPECT_EQ(exchanges, 3) << "asked again for what was refused";
  sign_in(entry("gho_4"), entry("gho_3"));
  EXPECT_EQ(ask(auth), "gho_4") << "another account";
  sign_in(entry("gho_5"), entry("gho_3"));
  EXPECT_TRUE(contains(ask(auth), "HTTP 503")) << "no refusal, so the next has no turn";
  statuses["gho_3"] = statuses["gho_5"] = 403;
  const std::string told = ask(auth);
  EXPECT_TRUE(told.starts_with("GitHub refuses the stored cred")) << told;
  EXPECT_TRUE(contains(told, "refused all 3 credentials")) << told;
}

TEST_F(Copilot, UsesAGoodTokenWhileItsRenewalFails) {
  for (const int status : {401, 503}) {
    SCOPED_TRACE(status);
    give("1e-9", 62, status);  // good for 2 s
    CopilotAuth fresh({.transport = transport});
    EXPECT_EQ(ask(fresh) + ask(fresh) + ask(fresh), "T-1T-1T-1");
    EXPECT_EQ(exchanges, 2);
    std::this_thread::sleep_for(1050ms);
    EXPECT_EQ(ask(fresh), "T-3") << "no other attempt before the token ends";
  }
}

TEST_F(Copilot, UsesAGoodTokenWhileItsRenewalHangs) {
  std::promise<void> renewing;
  on_exchange = [&](Exchange& exchange) {
    if (exchanges == 1) return exchange.reply(200, token("T-1", "1e-9"));
    renewing.set_value();
    exchange.stall();
  };
  ask(auth);
  const auto start = http::Clock::now();
  auto renewal =
      std::async(std::launch::async, [&] { return ask(auth, {.deadline = start + 4s}); });
  renewing.get_future().get();
  EXPECT_EQ(ask(auth), "T-1");
  EXPECT_EQ(renewal.wait_for(0s), std::future_status::timeout) << "others waited for it";
  EXPECT_EQ(renewal.get(), "T-1");
  EXPECT_LT(seconds_since(start), 3) << "it took all the time that there was";
}

TEST_F(Copilot, DoesNotFallBackOnATokenThatWasRefusedMeanwhile) {
  give("1e-9", 1800, 503);
  on_exchange = [&, reply = on_exchange](Exchange& exchange) {
    if (exchanges == 2) auth.drop_token({{"Authorization", "Bearer T-1"}});
    reply(exchange);
  };
  EXPECT_EQ(ask(auth), "T-1");
  EXPECT_EQ(ask(auth), "T-3");
}

TEST_F(Copilot, ServesAChildOfABusyProcess) {
#ifdef __SANITIZE_ADDRESS__
  GTEST_SKIP() << "a child may find the sanitizer's allocator locked by a thread of its parent";
#endif
  std::atomic<bool> done = false;
  on_exchange = [&](Exchange& exchange) {
    exchanges == 1 ? exchange.stall() : exchange.reply(200, token("T"));
  };
  std::vector<std::jthread> threads(4);  // one makes the exchange, the others wait for it
  for (std::jthread& thread : threads) {
    thread = std::jthread([&] { ask(auth, {.should_stop = [&] { return done.load(); }}); });
  }
  while (exchanges == 0) std::this_thread::sleep_for(1ms);
  for (int i = 0; i < 5; ++i) {
    const pid_t child = fork();
    if (child == 0) _exit(ask(auth, {.deadline = http::Clock::now() + 5s}) == "T" ? 0 : 1);
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
  }
  done = true;
}

TEST_F(Copilot, MakesOneExchangeForThreadsThatNeedOneTogether) {
  for (const int status : {200, 401, 503}) {
    exchanges = 0;
    on_exchange = [=](Exchange& exchange) {
      exchange.pause(150ms);
      exchange.reply(status, token("T"));
    };
    CopilotAuth fresh({.transport = transport});
    std::atomic<int> tokens = 0;
    in_threads(8, [&] { tokens += gets_token(fresh) ? 1 : 0; });
    EXPECT_EQ(tokens, status == 200 ? 8 : 0) << status;
    EXPECT_EQ(exchanges, 1) << status;
  }
}

TEST_F(Copilot, LetsEachCallEndAnExchangeForItselfAlone) {
  on_exchange = [&](Exchange& exchange) {
    exchanges == 1 ? exchange.stall() : exchange.reply(200, token("T"));
  };
  // The first makes the exchange, the others wait for it; all but the last give up.
  std::atomic<int> stopped = 0;
  const auto begin = [&](const CallBounds& bounds) {
    return std::async(std::launch::async, [&, bounds] { return ask(auth, bounds); });
  };
  auto maker = begin({.should_stop = [&] { return stopped > 1; }});
  while (exchanges == 0) std::this_thread::sleep_for(1ms);
  auto late = begin({.deadline = http::Clock::now() + 50ms});
  auto waiter = begin({.should_stop = [&] { return stopped > 0; }});
  auto heir = begin({});
  for (auto* const call : {&late, &waiter, &maker}) {
    EXPECT_EQ(call->wait_for(5s), std::future_status::ready) << stopped;
    ++stopped;
  }
  EXPECT_TRUE(late.get().starts_with("the deadline passed"));
  for (auto* const call : {&waiter, &maker}) EXPECT_TRUE(call->get().starts_with("stopped"));
  EXPECT_EQ(heir.get(), "T");
  EXPECT_EQ(exchanges, 2);
}

TEST_F(Copilot, SharesNoResultWithAnotherAccount) {
  std::atomic<bool> waits = false;
  on_exchange = [&](Exchange& exchange) {
    if (exchanges > 1) return exchange.reply(200, token("T-2"));
    while (!waits) exchange.pause(1ms);
    exchange.reply(401, "");
  };
  std::jthread first([&] { EXPECT_FALSE(gets_token(auth)); });
  while (exchanges == 0) std::this_thread::sleep_for(1ms);
  sign_in(entry("gho_2"));
  EXPECT_EQ(ask(auth, {.should_stop = [&] { return waits = true, false; }}), "T-2");
}

// For ThreadSanitizer: all that threads share changes all the time.
TEST_F(Copilot, ServesManyThreadsWhileItsTokenKeepsRunningOut) {
  on_exchange = [](Exchange& exchange) { exchange.reply(200, token("T", "0.003")); };
  in_threads(16, [&] {
    for (int i = 0; i < 50; ++i) {
      const http::Headers headers = auth.chat_headers();
      EXPECT_FALSE(auth.secrets().empty());
      if (i % 8 == 0) auth.drop_token(headers);
    }
  });
  EXPECT_LE(auth.secrets().size(), 16U);
}

}  // namespace
