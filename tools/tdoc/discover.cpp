// tdoc discover: asks every host-discovery call of the platform in the order a
// host application asks them, shows what each gave, and explains which one wins
// and why. The explanation comes from what an administrator can see as well: the
// configuration file beside the module and the registry values the calls read.
#include <CLI/CLI.hpp>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "common.h"
#include "sys.h"

#ifndef TDOC_BUILD_DEFAULT_HOST
#define TDOC_BUILD_DEFAULT_HOST ""
#endif

namespace tdoc {
namespace {

const char kVendorKey[] = "SOFTWARE\\Tarvo Software\\";

struct DiscoverOptions {
  std::string app = "Tarvo PDF Reader";
  std::string version = "12.0";
  std::string sid;
};

// The configuration file as anyone can read it.
struct ConfigView {
  std::string path;
  bool present = false;
  bool json_object = false;
  Json::Value root;
  std::string Member(const char* key) const {
    const Json::Value& v = json_object ? root[key] : Json::Value::nullSingleton();
    return v.isString() || v.isNumeric() || v.isBool() ? v.asString() : std::string();
  }
};

ConfigView ReadConfig(const std::string& module_path) {
  ConfigView view;
  const size_t slash = module_path.find_last_of("\\/");
  view.path = (slash == std::string::npos ? std::string(".") : module_path.substr(0, slash)) +
              sys::PathSeparator() + "tpcsdk.config";
  std::ifstream file(view.path, std::ios::binary);
  if (!file) return view;
  view.present = true;
  std::stringstream text;
  text << file.rdbuf();
  Json::CharReaderBuilder builder;
  std::string errors;
  std::istringstream stream(text.str());
  view.json_object = Json::parseFromStream(builder, stream, &view.root, &errors) && view.root.isObject();
  return view;
}

std::string Major(const std::string& version) { return version.substr(0, version.find('.')) + ".0"; }

bool Holds(const std::string& text, const char* word) { return text.find(word) != std::string::npos; }

// One call of the platform: what it is, what it gave, where it looked.
struct SlotOutcome {
  int slot;
  std::string call;
  std::string source;  // the kind of source, as an administrator names it
  int result = 0;
  std::string host;
  std::string from;    // which of the slot's sources gave the host
  std::vector<std::string> looked_at;
};

Json::Value ToJson(const SlotOutcome& s) {
  Json::Value v(Json::objectValue);
  v["slot"] = s.slot;
  v["call"] = s.call;
  v["source"] = s.source;
  v["result"] = s.result;
  v["result_name"] = ResultName(s.result);
  v["host"] = s.host.empty() ? Json::Value() : Json::Value(s.host);
  v["from"] = s.from;
  v["looked_at"] = Json::Value(Json::arrayValue);
  for (const std::string& l : s.looked_at) v["looked_at"].append(l);
  return v;
}

void PrintSlots(const std::vector<SlotOutcome>& slots) {
  int n = 1;
  for (const SlotOutcome& s : slots) {
    std::printf("  %d. %-22s slot %-2d %s\n", n++, s.source.c_str(), s.slot, s.call.c_str());
    if (s.host.empty())
      std::printf("       gave: nothing (result %d %s)\n", s.result, ResultName(s.result));
    else
      std::printf("       gave: %s   <- %s\n", s.host.c_str(), s.from.c_str());
    for (size_t i = 0; i < s.looked_at.size(); ++i)
      std::printf("       %s %s\n", i == 0 ? "looked at:" : "          ", s.looked_at[i].c_str());
  }
}

int RunDiscover(Context& ctx, const DiscoverOptions& o) {
  ctx.Load();
  IPDFPlatform* p = ctx.host.platform();
  const WString app = Wide(o.app), version = Wide(o.version), sid = Wide(o.sid);
  const ConfigView config = ReadConfig(ctx.host.module_path());
  const bool editor = Holds(o.app, "BrindlePDF") || Holds(o.app, "Editor");
  const bool editor_update = Holds(o.app, "BrindlePDF");
  const std::string product = editor ? "Tarvo PDF Editor" : "Tarvo PDF Reader";
  const std::string plugin_key = kVendorKey + product + " " + Major(o.version) + "\\plugins\\TDOCServer";
  const std::string user_hive = sys::DescribeHive(sys::Hive::CurrentUser);
  const std::string policy_key = std::string("Software\\Policies\\Tarvo\\") + (editor ? "PDFEditor" : "PDFReader");
  const std::string update_policy_key =
      std::string("Software\\Policies\\Tarvo\\") + (editor_update ? "PDFEditor" : "PDFReader");
  const std::string env = config.Member("env"), upd = config.Member("upd");
  const std::string built_in = TDOC_BUILD_DEFAULT_HOST;
  std::string tenant;
  sys::ReadRegistryString(sys::Hive::CurrentUser, plugin_key, "EnterpriseTenantDomain", &tenant);
  const std::string config_state =
      !config.present ? "not present" : !config.json_object ? "present, but not a JSON object (no keys)" : "present";

  auto call = [&](const std::string& what, const std::function<int(TDC_LPWSTR*)>& fn, SlotOutcome* s) {
    TDC_LPWSTR out = nullptr;
    s->result = ctx.host.Bounded(what, ctx.timeout_ms(), [&] { return fn(&out); });
    s->host = ctx.host.TakeWide(out);
  };

  // Service host: policy, then the last sign-in, then the configuration file.
  std::vector<SlotOutcome> service(3);
  SlotOutcome& policy = service[0];
  policy.slot = 7;
  policy.call = "GetRecordHostFromGPO";
  policy.source = "policy";
  call("GetRecordHostFromGPO", [&](TDC_LPWSTR* out) {
    return p->GetRecordHostFromGPO(out, app.c_str(), version.c_str(), sid.c_str());
  }, &policy);
  policy.looked_at = {"tenant value " + plugin_key + " : EnterpriseTenantDomain in " + user_hive +
                          (tenant.empty() ? " (not set)" : " = " + tenant),
                      "policy TDOCServer under " + policy_key + "\\TDOC (machine, then user)",
                      "ProfStore\\ProfStore.xml under the product's InstallPath"};
  if (!policy.host.empty())
    policy.from = !tenant.empty() && tenant == policy.host ? "the tenant value in the registry"
                                                             : "policy (machine or user policy, or the preference file)";

  SlotOutcome& last = service[1];
  last.slot = 9;
  last.call = "GetRecordHostFromLastDefaultLogined";
  last.source = "last sign-in";
  call("GetRecordHostFromLastDefaultLogined", [&](TDC_LPWSTR* out) {
    return p->GetRecordHostFromLastDefaultLogined(out, app.c_str(), version.c_str(), sid.c_str());
  }, &last);
  const std::string signed_in_key = (o.sid.empty() ? std::string() : o.sid + "\\") + kVendorKey + o.app + " " +
                                     Major(o.version) + "\\plugins\\TDOCServer\\LoginedService";
  last.looked_at = {signed_in_key + " in " + (o.sid.empty() ? user_hive : std::string("the hive of all users")) +
                    ": the first value whose text is \"1\" names the host"};
  if (!last.host.empty()) last.from = "the service marked as default at the last sign-in";

  SlotOutcome& file = service[2];
  file.slot = 5;
  file.call = "GetRecordHostFromConfig";
  file.source = "configuration file";
  call("GetRecordHostFromConfig", [&](TDC_LPWSTR* out) { return p->GetRecordHostFromConfig(out); }, &file);
  file.looked_at = {"env in " + config.path + " (" + config_state + (env.empty() ? ", no env)" : ", env = " + env + ")"),
                    "the DNS TXT record of the directory domain (domain-joined machines, unless DisableFindHost)",
                    "the built-in default" + (built_in.empty() ? std::string() : " " + built_in)};
  if (!file.host.empty())
    file.from = !env.empty() && file.host == env ? "the configuration file (env)"
                : file.host == built_in          ? "the built-in default: no env in the file and no DNS record"
                                                 : "the DNS TXT record of the directory domain";

  // Update host: policy, then the configuration file.
  std::vector<SlotOutcome> update(2);
  SlotOutcome& upolicy = update[0];
  upolicy.slot = 8;
  upolicy.call = "GetRecordUpdateHostFromGPO";
  upolicy.source = "policy";
  call("GetRecordUpdateHostFromGPO", [&](TDC_LPWSTR* out) {
    return p->GetRecordUpdateHostFromGPO(out, app.c_str(), version.c_str());
  }, &upolicy);
  upolicy.looked_at = {"policy InternalUpdate under " + update_policy_key + "\\TDOC, or the preference file"};
  if (!upolicy.host.empty()) upolicy.from = "policy";
  SlotOutcome& ufile = update[1];
  ufile.slot = 6;
  ufile.call = "GetRecordUpdateHostFromConfig";
  ufile.source = "configuration file";
  call("GetRecordUpdateHostFromConfig", [&](TDC_LPWSTR* out) { return p->GetRecordUpdateHostFromConfig(out); },
       &ufile);
  ufile.looked_at = {"upd in " + config.path + " (" + config_state + (upd.empty() ? ", no upd)" : ", upd = " + upd + ")"),
                     config.present ? "no DNS look-up: the file exists, so it alone decides"
                                    : "the DNS TXT record for updates (there is no file)"};
  if (!ufile.host.empty())
    ufile.from = !upd.empty() && ufile.host == upd ? "the configuration file (upd)" : "the DNS TXT record for updates";

  const int enterprise = ctx.host.Bounded("IsEnterpriseEnv", ctx.timeout_ms(), [&] {
    return p->IsEnterpriseEnv(app.c_str(), version.c_str(), sid.c_str());
  });

  auto winner = [](const std::vector<SlotOutcome>& slots) -> const SlotOutcome* {
    for (const SlotOutcome& s : slots)
      if (!s.host.empty()) return &s;
    return nullptr;
  };
  const SlotOutcome* service_winner = winner(service);
  const SlotOutcome* update_winner = winner(update);
  auto why = [](const std::vector<SlotOutcome>& slots, const SlotOutcome* w) {
    if (!w) return std::string("no source named a host");
    std::string text = "slot " + std::to_string(w->slot) + " (" + w->source + ") is the first in the host's order that gave one";
    std::string before;
    for (const SlotOutcome& s : slots) {
      if (&s == w) break;
      before += (before.empty() ? "" : ", ") + s.source;
    }
    if (!before.empty()) text += "; " + before + " gave nothing";
    return text + "; the host came from " + w->from;
  };

  if (ctx.json) {
    Json::Value out(Json::objectValue);
    out["command"] = "discover";
    out["app"] = o.app;
    out["version"] = o.version;
    out["sid"] = o.sid;
    out["module"] = ctx.host.module_path();
    out["config_file"]["path"] = config.path;
    out["config_file"]["present"] = config.present;
    out["config_file"]["env"] = env;
    out["config_file"]["upd"] = upd;
    for (const char* key : {"service_host", "update_host"}) {
      const bool is_service = std::string(key) == "service_host";
      const auto& slots = is_service ? service : update;
      const SlotOutcome* w = is_service ? service_winner : update_winner;
      out[key]["slots"] = Json::Value(Json::arrayValue);
      for (const SlotOutcome& s : slots) out[key]["slots"].append(ToJson(s));
      out[key]["host"] = w ? Json::Value(w->host) : Json::Value();
      out[key]["winner_slot"] = w ? Json::Value(w->slot) : Json::Value();
      out[key]["winner_source"] = w ? Json::Value(w->source) : Json::Value();
      out[key]["why"] = why(slots, w);
    }
    out["enterprise"] = enterprise == 1;
    std::fprintf(ctx.out, "%s\n", CompactJson(out).c_str());
    return kExitOk;
  }

  std::printf("Host discovery for \"%s\" %s, %s\n", o.app.c_str(), o.version.c_str(),
              o.sid.empty() ? "the current user" : ("user " + o.sid).c_str());
  std::printf("module:             %s\n", ctx.host.module_path().c_str());
  std::printf("configuration file: %s (%s)\n\n", config.path.c_str(), config_state.c_str());
  std::printf("Service host, in the order a host application asks:\n");
  PrintSlots(service);
  std::printf("\n  => service host: %s\n     %s\n\n",
              service_winner ? service_winner->host.c_str() : "(none)", why(service, service_winner).c_str());
  std::printf("Update host, in the order a host application asks:\n");
  PrintSlots(update);
  std::printf("\n  => update host: %s\n     %s\n\n", update_winner ? update_winner->host.c_str() : "(none)",
              why(update, update_winner).c_str());
  std::printf("Enterprise installation (slot 10 IsEnterpriseEnv): %s\n", enterprise == 1 ? "yes" : "no");
  return kExitOk;
}

}  // namespace

void AddDiscover(CLI::App& app, Context& ctx) {
  auto o = std::make_shared<DiscoverOptions>();
  CLI::App* command = app.add_subcommand(
      "discover", "Which service host this machine and user would use, from which source, and why");
  command->add_option("--app", o->app, "Application name, as the host passes it");
  command->add_option("--version", o->version, "Application version");
  command->add_option("--sid", o->sid, "Another user's security identifier (last sign-in of that user)");
  command->callback([&ctx, o] { ctx.run = [&ctx, o] { return RunDiscover(ctx, *o); }; });
}

}  // namespace tdoc
