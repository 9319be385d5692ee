/* token, proxy and purge: the cache service and its cache. */
#include <fmt/format.h>

#include <CLI/CLI.hpp>

#include "commands.h"
#include "console.h"
#include "text.h"

namespace tnwsh {
namespace {

/* A secret need not stand on a command line, which is kept and seen by others. */
std::string Secret(const std::string& argument) {
  std::string secret = argument;
  if (argument == "-" && !ReadSecret(&secret)) {
    throw UsageError("Standard input has no line for \"-\"");
  }
  return secret;
}

constexpr char kSecretHelp[] = "; \"-\" reads it from the next line of standard input";

/* The start record is asked first: what it does not take would be lost with the service. */
void Token(Shell& shell, const std::string& token) {
  Options next = shell.Given();
  next.token = Secret(token);
  StartRecord(next);
  shell.TheDrive().UpdateToken(next.token);
  shell.Change(std::move(next));
}

struct Proxy {
  std::string server;
  std::string user;
  std::string password;
};

void SetProxy(Shell& shell, const Proxy& proxy) {
  Options next = shell.Given();
  next.proxy = proxy.server;
  next.proxy_user = proxy.user;
  next.proxy_password = Secret(proxy.password);
  StartRecord(next);
  shell.TheDrive().SetProxy(next.proxy, next.proxy_user, next.proxy_password);
  shell.Change(std::move(next));
}

void Purge(Shell& shell, bool sure) {
  const std::string question = fmt::format(
      "Delete {} with all changes that are not in the cloud yet?", CacheFolder(shell.Given()));
  if (!sure && !Confirm(question)) {
    throw Failure(CacheFolder(shell.Given()),
                  "not deleted: changes that are not in the cloud yet would be lost; --yes deletes "
                  "it nevertheless");
  }
  shell.StopDrive();
  fmt::print("{}\n", PurgeCache(shell.Given()));
}

}  // namespace

void DeclareToken(CLI::App* command, Action* action) {
  auto token = std::make_shared<std::string>();
  command->add_option("TOKEN", *token, std::string("The new token") + kSecretHelp)->required();
  command->callback([=] { *action = [=](Shell& shell) { Token(shell, *token); }; });
}

void DeclareProxy(CLI::App* command, Action* action) {
  auto proxy = std::make_shared<Proxy>();
  command->add_option("SERVER", proxy->server, "The proxy: host:port")->required();
  command->add_option("USER", proxy->user, "Its user");
  command->add_option("PASSWORD", proxy->password, std::string("Their password") + kSecretHelp);
  command->callback([=] { *action = [=](Shell& shell) { SetProxy(shell, *proxy); }; });
}

void DeclarePurge(CLI::App* command, Action* action) {
  auto sure = std::make_shared<bool>(false);
  command->add_flag("--yes", *sure, "Does not ask");
  command->callback([=] { *action = [=](Shell& shell) { Purge(shell, *sure); }; });
}

}  // namespace tnwsh
