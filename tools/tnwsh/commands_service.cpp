/* token, proxy and purge: the cache service and its cache. */
#include <fmt/format.h>

#include "commands.h"

namespace tnwsh {
namespace {

/* "-" asks for the secret, because a command line is stored and other users can see it. */
std::string secret(const std::string& argument) {
  std::string secret = argument;
  if (argument == "-" && !read_secret(&secret)) {
    throw UsageError("Standard input has no line for \"-\"");
  }
  return secret;
}

/* The parser would print the words that it does not expect. They may belong to a secret. */
void refuse_extras(CLI::App* command, const char* usage) {
  command->allow_extras();
  command->parse_complete_callback([=] {
    if (!command->remaining().empty()) {
      throw UsageError(usage);
    }
  });
}

constexpr char SECRET_HELP[] = "; \"-\" reads it from the next line of standard input";

/* Checks the value with the start record first: the next start of the service needs it, too. */
void run_token(Shell& shell, const std::string& token) {
  Options next = shell.options();
  next.token = secret(token);
  start_record(next);
  shell.drive().update_token(next.token);
  shell.change(std::move(next));
}

struct Proxy {
  std::string server;
  std::string user;
  std::string password;
};

void run_proxy(Shell& shell, const Proxy& proxy) {
  Options next = shell.options();
  next.proxy = proxy.server;
  next.proxy_user = proxy.user;
  next.proxy_password = secret(proxy.password);
  start_record(next);
  shell.drive().set_proxy(next.proxy, next.proxy_user, next.proxy_password);
  shell.change(std::move(next));
}

struct PurgeArguments {
  bool sure = false;
};

void run_purge(Shell& shell, const PurgeArguments& purge) {
  const std::string question = fmt::format(
      "Delete {} with all changes that are not in the cloud yet?", cache_folder(shell.options()));
  if (!purge.sure && !confirm(question)) {
    throw Failure(cache_folder(shell.options()),
                  "not deleted: changes that are not in the cloud yet would be lost; --yes deletes "
                  "it nevertheless");
  }
  shell.stop_drive();
  fmt::print("{}\n", purge_cache(shell.options()));
}

}  // namespace

void declare_service_commands(CLI::App* app, Action* action) {
  auto [token, new_token] =
      add_command(app, action, "token", "Hands a new access token to the cache service", run_token,
                  {TOKEN_ANSWERS, DRIVE_ANSWERS});
  token->add_option("TOKEN", *new_token, std::string("The new token") + SECRET_HELP)->required();
  refuse_extras(token, "The token must be one word");

  auto [proxy, named] =
      add_command(app, action, "proxy", "Tells the cache service the HTTP proxy to use", run_proxy,
                  {PROXY_ANSWERS, DRIVE_ANSWERS}, "It counts for as long as this shell runs.");
  proxy->add_option("SERVER", named->server, "The proxy: host:port")->required();
  proxy->add_option("USER", named->user, "Its user");
  proxy->add_option("PASSWORD", named->password, std::string("Their password") + SECRET_HELP);
  refuse_extras(proxy, "The proxy takes at most three words");

  auto [purge, arguments] = add_command(
      app, action, "purge", "Deletes the user's cache on this machine", run_purge, {PURGE_ANSWERS},
      "Changes that are not in the cloud yet are lost. A drive of this shell is stopped first.");
  purge->add_flag("--yes", arguments->sure, "Does not ask");
}

}  // namespace tnwsh
