// A transport that changes requests before they are sent: for providers that want other headers,
// another URL or other members of the body.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "tovren_mapstead/engines/http/secrets.hpp"
#include "tovren_mapstead/engines/http/transport.hpp"
#include "tovren_mapstead/export.hpp"

namespace tovren_mapstead::engines::http {

/// Changes a request. Called for each request on the thread of its call, from several threads at
/// once. An exception from it ends the call and reaches the caller unchanged.
using RequestEdit = std::function<void(Request&)>;

/// Returns a transport that calls `edit` for each request and passes it on to `transport`, or to
/// the engine's own if that is null. Kept out of error texts are the credentials in the changed
/// headers, as `secrets_of` finds them, and `secrets`: credentials that it does not find, such as
/// those in a URL. Headers and URL must hold no line break and no NUL, or HttpFailure is thrown.
/// Thread-safe.
///
///     http::edit_requests([](http::Request& request) {
///       request.headers["X-Title"] = "My application";
///       http::rename_member(request.body, "max_tokens", "max_completion_tokens");
///       http::set_member(request.body, "reasoning_effort", "\"low\"");
///     });
[[nodiscard]] TOVREN_EXPORT std::shared_ptr<Transport> edit_requests(
    RequestEdit edit, std::shared_ptr<Transport> transport = nullptr, Secrets secrets = {});

/// Sets the member `name` of the JSON object `body` to the JSON text `json`: replaces its value, or
/// adds it at the end. Returns false, and changes nothing, if `body` is no JSON object, such as the
/// empty body of a GET. Throws std::invalid_argument if `json` is not JSON. Linear in `body`, like
/// the next two.
TOVREN_EXPORT bool set_member(std::string& body, std::string_view name, std::string_view json);

/// Renames the member `name` of the JSON object `body` and keeps its place. Returns whether there
/// was one.
TOVREN_EXPORT bool rename_member(std::string& body, std::string_view name,
                                 std::string_view new_name);

/// Removes the member `name` of the JSON object `body`. Returns whether there was one.
TOVREN_EXPORT bool remove_member(std::string& body, std::string_view name);

}  // namespace tovren_mapstead::engines::http
