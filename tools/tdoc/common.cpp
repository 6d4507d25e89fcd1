#include "common.h"

#include <CLI/CLI.hpp>

#include <cstdio>

namespace tdoc {

void Context::Load() {
  if (!host.loaded()) host.Load(module_path);
}

void AddClientOptions(CLI::App* command, ClientOptions* options, bool with_token,
                      const char* app_version_flag) {
  command->add_option("--host", options->host, "Service host URL (or TDOC_HOST)")
      ->envname("TDOC_HOST")
      ->required();
  command->add_option("--lang", options->lang, "Application language sent as al");
  command->add_option("--app", options->app, "Application name sent as an");
  command->add_option(app_version_flag, options->version, "Application version sent as av");
  if (with_token)
    command->add_option("--token", options->token, "The user's access token (or TDOC_TOKEN)")
        ->envname("TDOC_TOKEN")
        ->required();
}

ITetherdocServer* Connect(Context& ctx, const ClientOptions& options, std::string* domain,
                          int64_t* took_ms) {
  ctx.Load();
  const WString host = Wide(options.host);
  TDC_CLIENT_INFO info{options.lang.c_str(), "", options.app.c_str(), options.version.c_str()};
  TDC_LPWSTR out = nullptr;
  const int64_t start = NowMs();
  const int result = ctx.host.Bounded("InitApi " + options.host, ctx.timeout_ms(), [&] {
    return ctx.host.platform()->InitApi(host.c_str(), &info, &out);
  });
  if (took_ms) *took_ms = NowMs() - start;
  const std::string text = ctx.host.TakeWide(out);
  if (result != TDC_HRESULT_OK)
    throw Failure{ExitForResult(result), "InitApi " + options.host + " gave " + std::to_string(result) +
                                             " (" + ResultName(result) + ")" +
                                             (result == TDC_HRESULT_HTTP_ERROR ? ": the host did not answer with its API directory" : "")};
  if (domain) *domain = text;
  ITetherdocServer* client = ctx.host.platform()->GetServerByHost(host.c_str());
  if (!client) throw Failure{kExitFailed, "the platform holds no client for " + options.host};
  return client;
}

std::string CompactJson(const Json::Value& value) {
  Json::StreamWriterBuilder builder;
  builder["indentation"] = "";
  builder["emitUTF8"] = true;
  return Json::writeString(builder, value);
}

Json::Value JsonOrText(const std::string& text) {
  Json::Value parsed;
  Json::CharReaderBuilder builder;
  std::string errors;
  std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
  if (!text.empty() && reader->parse(text.data(), text.data() + text.size(), &parsed, &errors))
    return parsed;
  return Json::Value(text);
}

void PrintOutcome(const Context& ctx, const std::string& command, int result, int64_t ms,
                  const Json::Value& fields) {
  if (ctx.json) {
    Json::Value out(Json::objectValue);
    out["command"] = command;
    out["result"] = result;
    out["result_name"] = ResultName(result);
    out["ms"] = static_cast<Json::Int64>(ms);
    for (const std::string& name : fields.getMemberNames()) out[name] = fields[name];
    std::fprintf(ctx.out, "%s\n", CompactJson(out).c_str());
    return;
  }
  std::printf("%s: %d (%s) in %lld ms\n", command.c_str(), result, ResultName(result),
              static_cast<long long>(ms));
  for (const std::string& name : fields.getMemberNames()) {
    const Json::Value& v = fields[name];
    std::printf("  %s: %s\n", name.c_str(), v.isString() ? v.asCString() : CompactJson(v).c_str());
  }
}

}  // namespace tdoc
