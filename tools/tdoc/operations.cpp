// init and one command per operation family. Each command creates the client for
// --host the way a host does (InitApi, then the client by host), makes one call
// through the client's interface, and prints what came back.
#include <CLI/CLI.hpp>

#include <map>
#include <vector>

#include "common.h"

namespace tdoc {
namespace {

// The arguments of one command: the client options, named texts, and numbers.
struct Args {
  ClientOptions client;
  std::map<std::string, std::string> text;
  int size = 0;
  int pages = 1;
  int creview = 0;
};

// One named text option: its flag, the key it is kept under, its help, and
// whether it must be given.
struct Opt {
  const char* flag;
  const char* key;
  const char* help;
  bool required;
};

// What a command's body works with.
struct Call {
  Call(Context& c, ITetherdocServer* s, const Args& a) : ctx(c), client(s), args(a) {}
  Context& ctx;
  ITetherdocServer* client;
  const Args& args;
  Json::Value fields{Json::objectValue};

  const char* T(const char* key) const { return args.text.at(key).c_str(); }
  WString W(const char* key) const { return Wide(args.text.at(key)); }
  void Text(const char* name, char* block) { fields[name] = JsonOrText(ctx.host.TakeText(block)); }
};

using Body = std::function<int(Call&)>;

enum Token { kNoToken, kToken };

CLI::App* Define(CLI::App* parent, Context& ctx, const char* name, const char* help, Token token,
                 const std::vector<Opt>& options, Body body,
                 std::shared_ptr<Args> args = std::make_shared<Args>()) {
  CLI::App* command = parent->add_subcommand(name, help);
  AddClientOptions(command, &args->client, token == kToken);
  for (const Opt& o : options) {
    CLI::Option* option = command->add_option(o.flag, args->text[o.key], o.help);
    if (o.required) option->required();
  }
  const std::string label = parent->get_parent() ? parent->get_name() + " " + name : name;
  command->callback([&ctx, args, body, label] {
    ctx.run = [&ctx, args, body, label] {
      Call call(ctx, Connect(ctx, args->client), *args);
      const int64_t start = NowMs();
      const int result = ctx.host.Bounded(label, ctx.timeout_ms(), [&] { return body(call); });
      PrintOutcome(ctx, label, result, NowMs() - start, call.fields);
      return ExitForResult(result);
    };
  });
  return command;
}

CLI::App* Family(CLI::App& app, const char* name, const char* help) {
  CLI::App* family = app.add_subcommand(name, help);
  family->require_subcommand(1);
  return family;
}

// Stores the token for the URLs that carry it (the forms that fill it in).
void StoreToken(Call& c) {
  if (!c.args.client.token.empty()) c.client->SetAccessToken(Wide(c.args.client.token).c_str());
}

void AddNumbers(CLI::App* command, Args& args) {
  command->add_option("--size", args.size, "Document size in bytes");
  command->add_option("--pages", args.pages, "Page count (0 is refused)");
}

void AddUser(CLI::App& app, Context& ctx) {
  CLI::App* user = Family(app, "user", "Identity: check a token, e-mail, online state, device, third-party sign-in");
  Define(user, ctx, "check", "Is the token valid? (CheckUserToken)", kToken, {}, [](Call& c) {
    int32_t valid = -1;
    const int r = c.client->CheckUserToken(c.args.client.token.c_str(), &valid);
    if (r == TDC_HRESULT_OK) c.fields["valid"] = valid == 1;
    return r;
  });
  Define(user, ctx, "email", "The token's e-mail address (GetEmail)", kToken, {}, [](Call& c) {
    char* email = nullptr;
    const int r = c.client->GetEmail(c.args.client.token.c_str(), &email);
    c.Text("email", email);
    return r;
  });
  Define(user, ctx, "online", "Is a user on line? (isUserOnLine)", kToken,
         {{"--email", "email", "The user's e-mail address", true}}, [](Call& c) {
           StoreToken(c);
           int32_t online = 0;
           const int r = c.client->isUserOnLine(c.T("email"), &online);
           c.fields["online"] = online == 1;
           return r;
         });
  Define(user, ctx, "device", "Register the user's device (GetUserDeviceInfo)", kNoToken,
         {{"--type", "type", "Device type", true},
          {"--device-id", "mobileDeviceId", "Device id", true},
          {"--name", "deviceName", "Device name", true},
          {"--model", "deviceModel", "Device model", false},
          {"--mac", "mac", "MAC address", false},
          {"--os", "os", "Operating system", false},
          {"--product", "productName", "Product name", false},
          {"--vendor", "productVendor", "Product vendor", false},
          {"--product-version", "productVersion", "Product version", false},
          {"--product-language", "productLanguage", "Product language", false}},
         [](Call& c) {
           const WString f[] = {c.W("type"), c.W("mobileDeviceId"), c.W("deviceName"), c.W("deviceModel"),
                                c.W("mac"), c.W("os"), c.W("productName"), c.W("productVendor"),
                                c.W("productVersion"), c.W("productLanguage")};
           TDC_DEVICE_INFO info{f[0].c_str(), f[1].c_str(), f[2].c_str(), f[3].c_str(), f[4].c_str(),
                                f[5].c_str(), f[6].c_str(), f[7].c_str(), f[8].c_str(), f[9].c_str()};
           char* reply = nullptr;
           const int r = c.client->GetUserDeviceInfo(&info, &reply);
           c.Text("reply", reply);
           return r;
         });
  const std::vector<Opt> third = {{"--base-url", "baseUrl", "Base URL of the sign-in service", true},
                                  {"--third-token", "thirdToken", "Token of the other identity provider", true}};
  Define(user, ctx, "third", "Exchange a third-party token for a user (GetThirdUser)", kNoToken, third,
         [](Call& c) {
           char* reply = nullptr;
           int32_t done = 0;
           const int r = c.client->GetThirdUser(c.T("baseUrl"), c.W("thirdToken").c_str(), &reply, &done);
           c.Text("reply", reply);
           c.fields["done"] = done == 1;
           return r;
         });
  Define(user, ctx, "third-info",
         "A third-party user's details (GetThirdUserInfo; the reply, not the result, tells success)",
         kNoToken, third, [](Call& c) {
           char* reply = nullptr;
           const int r = c.client->GetThirdUserInfo(c.T("baseUrl"), c.W("thirdToken").c_str(), &reply);
           c.fields["answered"] = reply != nullptr;
           c.Text("reply", reply);
           return r;
         });
  Define(user, ctx, "agreement",
         "The user agreement (GetAgreement; the reply, not the result, tells success)", kNoToken,
         {{"--base-url", "baseUrl", "Base URL of the sign-in service", true}}, [](Call& c) {
           char* reply = nullptr;
           const int r = c.client->GetAgreement(c.T("baseUrl"), &reply);
           c.fields["answered"] = reply != nullptr;
           c.Text("reply", reply);
           return r;
         });
}

const std::vector<Opt> kDocumentOptions = {
    {"--app-id", "cAppID", "Application id", true},
    {"--doc-id", "cDocID", "Document id", true},
    {"--name", "docName", "Document name", true},
    {"--created", "createTime", "Creation time", true},
    {"--modified", "modifiedTime", "Modification time", true},
    {"--parent", "parentID", "Parent document id", false},
    {"--user-id", "cUserID", "Owner's user id", false},
    {"--author", "originalAuthor", "Original author", false},
    {"--filename", "originalFilename", "Original file name", false},
    {"--notification", "connectedNotification", "Connected notification", false}};

void AddDoc(CLI::App& app, Context& ctx) {
  CLI::App* doc = Family(app, "doc", "Documents: register, owner, owner's e-mail, open message");
  Define(doc, ctx, "register", "Register a document (UploadDocInfo)", kNoToken, kDocumentOptions, [](Call& c) {
    const WString f[] = {c.W("cAppID"), c.W("cDocID"), c.W("docName"), c.W("createTime"), c.W("modifiedTime"),
                         c.W("parentID"), c.W("cUserID"), c.W("originalAuthor"), c.W("originalFilename"),
                         c.W("connectedNotification")};
    TDC_DOC_INFO info{f[0].c_str(), f[1].c_str(), f[2].c_str(), f[3].c_str(), f[4].c_str(),
                      f[5].c_str(), f[6].c_str(), f[7].c_str(), f[8].c_str(), f[9].c_str()};
    return c.client->UploadDocInfo(&info);
  });
  std::vector<Opt> with_version = kDocumentOptions;
  with_version.push_back({"--version-id", "cVersionID", "Id of the first version", true});
  with_version.push_back({"--path", "docPath", "Document path", false});
  with_version.push_back({"--uri", "docURI", "Document URI", false});
  with_version.push_back({"--parent-version", "parentVersionID", "Parent version id", false});
  auto upload_args = std::make_shared<Args>();
  CLI::App* upload = Define(doc, ctx, "upload", "Register a document with its first version (UpLoadTDOC)",
                            kToken, with_version, [](Call& c) {
    StoreToken(c);
    const WString f[] = {c.W("cAppID"), c.W("cDocID"), c.W("docName"), c.W("createTime"),
                         c.W("modifiedTime"), c.W("parentID"), c.W("cUserID"), c.W("originalAuthor"),
                         c.W("originalFilename"), c.W("connectedNotification"), c.W("cVersionID"),
                         c.W("docPath"), c.W("docURI"), c.W("parentVersionID")};
    TDC_TDOC_INFO info{f[0].c_str(), f[1].c_str(), f[2].c_str(),  f[3].c_str(),  f[4].c_str(),
                       f[5].c_str(), f[6].c_str(), f[7].c_str(),  f[8].c_str(),  f[9].c_str(),
                       f[10].c_str(), f[11].c_str(), f[12].c_str(), f[13].c_str(), c.args.size, c.args.pages};
    return c.client->UpLoadTDOC(&info);
  }, upload_args);
  AddNumbers(upload, *upload_args);
  const std::vector<Opt> by_id = {{"--doc-id", "cDocID", "Document id", true}};
  Define(doc, ctx, "owner", "The owner's user id (GetDocOwnerID)", kNoToken, by_id, [](Call& c) {
    char* owner = nullptr;
    const int r = c.client->GetDocOwnerID(c.T("cDocID"), &owner);
    c.Text("owner", owner);
    return r;
  });
  Define(doc, ctx, "owner-email", "The owner's e-mail, name and mobile (GetOwnerEmail)", kNoToken, by_id,
         [&ctx](Call& c) {
           char* email = nullptr;
           char* mobile = nullptr;
           TDC_LPWSTR name = nullptr;
           const int r = c.client->GetOwnerEmail(nullptr, c.T("cDocID"), &email, &name, &mobile);
           c.Text("email", email);
           c.fields["name"] = ctx.host.TakeWide(name);
           c.Text("mobile", mobile);
           return r;
         });
  Define(doc, ctx, "open-message", "The message shown when a document opens (GetOpenMessage)", kNoToken,
         {{"--app-id", "cAppID", "Application id", true}, {"--msg-id", "msgId", "Message id", false}},
         [](Call& c) {
           char* reply = nullptr;
           const int r = c.client->GetOpenMessage(c.T("msgId"), c.T("cAppID"), &reply);
           c.Text("message", reply);
           return r;
         });
}

void AddVersion(CLI::App& app, Context& ctx) {
  CLI::App* version = Family(app, "version", "Versions: register, modify, delete, notify the owner");
  auto reg_args = std::make_shared<Args>();
  CLI::App* reg = Define(version, ctx, "register", "Register a version of a document (UploadVersionInfo)", kNoToken,
                         {{"--app-id", "cAppID", "Application id", true},
                          {"--doc-id", "cDocID", "Document id", true},
                          {"--version-id", "cVersionID", "Version id", true},
                          {"--name", "docName", "Document name", true},
                          {"--created", "createTime", "Creation time", true},
                          {"--path", "docPath", "Document path", false},
                          {"--uri", "docURI", "Document URI", false},
                          {"--parent", "parentID", "Parent version id", false},
                          {"--user-id", "cUserID", "User id", false}},
                         [](Call& c) {
    const WString f[] = {c.W("cAppID"), c.W("cDocID"), c.W("cVersionID"), c.W("docName"), c.W("docPath"),
                         c.W("docURI"), c.W("createTime"), c.W("parentID"), c.W("cUserID")};
    TDC_VERSION_INFO info{f[0].c_str(), f[1].c_str(), f[2].c_str(), f[3].c_str(), f[4].c_str(),
                          f[5].c_str(), f[6].c_str(), f[7].c_str(), f[8].c_str(), c.args.size, c.args.pages};
    return c.client->UploadVersionInfo(&info);
  }, reg_args);
  AddNumbers(reg, *reg_args);
  Define(version, ctx, "modify", "Change a version's record (ModifyDocVersion)", kToken,
         {{"--record", "json", "The version's record as JSON text", true}},
         [](Call& c) { return c.client->ModifyDocVersion(c.args.client.token.c_str(), c.T("json")); });
  Define(version, ctx, "delete", "Delete a version (DeleteDocVersion)", kToken,
         {{"--version-id", "cVersionID", "Version id", true}},
         [](Call& c) { return c.client->DeleteDocVersion(c.args.client.token.c_str(), c.T("cVersionID")); });
  Define(version, ctx, "notify", "E-mail the owner about a new version (UpdateNotificationSendEmail)", kToken,
         {{"--version-id", "cVersionID", "Version id", true}, {"--owner-email", "cOwnerEmail", "Owner's e-mail", true}},
         [](Call& c) {
           return c.client->UpdateNotificationSendEmail(c.args.client.token.c_str(), c.T("cVersionID"),
                                                        c.T("cOwnerEmail"));
         });
}

void AddServices(CLI::App& app, Context& ctx) {
  auto log_args = std::make_shared<Args>();
  CLI::App* log = Define(&app, ctx, "log", "Upload one usage record (UpLoadUserLogger)", kNoToken,
                         {{"--app-id", "cAppID", "Application id", true},
                          {"--doc-id", "cDocID", "Document id", true},
                          {"--version-id", "cVersionID", "Version id", true},
                          {"--start", "startTime", "Start time", true},
                          {"--operator-type", "operatorType", "Operator type", true},
                          {"--operator", "operator", "Operator", true},
                          {"--name", "docName", "Document name", true},
                          {"--user-id", "cUserID", "User id", false},
                          {"--operands", "operands", "Operands as JSON object text", false},
                          {"--path", "docPath", "Document path", false},
                          {"--uri", "docURI", "Document URI", false},
                          {"--review-session", "reviewSessionID", "Review session id", false}},
                         [](Call& c) {
    const WString f[] = {c.W("cAppID"), c.W("cDocID"), c.W("cVersionID"), c.W("cUserID"),
                         c.W("startTime"), c.W("operatorType"), c.W("operator"), c.W("operands"),
                         c.W("docName"), c.W("docPath"), c.W("docURI"), c.W("reviewSessionID")};
    TDC_USER_LOG record{f[0].c_str(), f[1].c_str(), f[2].c_str(), f[3].c_str(),  f[4].c_str(),  f[5].c_str(),
                        f[6].c_str(), f[7].c_str(), f[8].c_str(), f[9].c_str(), f[10].c_str(), f[11].c_str(),
                        c.args.creview};
    return c.client->UpLoadUserLogger(&record);
  }, log_args);
  log->add_option("--creview", log_args->creview, "1 for a connected review");
  Define(&app, ctx, "mail", "Send an e-mail through the service (SendEmailNotification)", kToken,
         {{"--subject", "subject", "Subject", true},
          {"--content", "content", "Content", true},
          {"--from", "sender", "Sender", true},
          {"--to", "receiver", "Receiver", true}},
         [](Call& c) {
           return c.client->SendEmailNotification(c.args.client.token.c_str(), c.W("subject").c_str(),
                                                  c.W("content").c_str(), c.W("sender").c_str(),
                                                  c.W("receiver").c_str());
         });
  Define(&app, ctx, "image", "Upload a signature image (UploadImage)", kToken,
         {{"--type", "imageType", "Image type", true}, {"--content", "content", "Image content (base64)", true}},
         [](Call& c) {
           char* reply = nullptr;
           const int r = c.client->UploadImage(c.args.client.token.c_str(), c.T("imageType"), c.T("content"), &reply);
           c.Text("reply", reply);
           return r;
         });
  Define(&app, ctx, "ticket", "A sign-in ticket for a user (GetCasTicket)", kNoToken,
         {{"--app-id", "appId", "Application id", true},
          {"--service", "service", "Service the ticket is for", true},
          {"--email", "email", "The user's e-mail address", true}},
         [](Call& c) {
           char* ticket = nullptr;
           const int r = c.client->GetCasTicket(c.T("appId"), c.T("service"), c.T("email"), &ticket);
           c.Text("ticket", ticket);
           return r;
         });
  Define(&app, ctx, "wrappers", "Bring the wrapper documents up to date (UpdateWrapperDocuments)", kToken, {},
         [](Call& c) {
           StoreToken(c);
           c.client->UpdateWrapperDocuments();
           c.fields["note"] = "the call returns nothing; the documents go to the module's cache folder";
           return TDC_HRESULT_OK;
         });
  Define(&app, ctx, "config", "The service's option configuration (GetServerOptionConfig)", kNoToken, {},
         [](Call& c) {
           char* config = nullptr;
           const int r = c.client->GetServerOptionConfig(&config);
           c.Text("config", config);
           return r;
         });
  Define(&app, ctx, "time",
         "Where the service tells its time (GetWebServiceUrl); the module reads the time for itself "
         "and has no call that hands it to a host",
         kNoToken, {}, [&ctx](Call& c) {
           TDC_LPWSTR url = nullptr;
           const int r = c.client->GetWebServiceUrl("tdc_server_time", &url);
           c.fields["url"] = ctx.host.TakeWide(url);
           return r;
         });
}

}  // namespace

void AddOperations(CLI::App& app, Context& ctx) {
  auto init = std::make_shared<ClientOptions>();
  CLI::App* command = app.add_subcommand("init", "Create the client for a host and load its API directory (InitApi)");
  AddClientOptions(command, init.get(), false);
  command->callback([&ctx, init] {
    ctx.run = [&ctx, init] {
      std::string domain;
      int64_t ms = 0;
      Connect(ctx, *init, &domain, &ms);
      Json::Value fields(Json::objectValue);
      fields["host"] = init->host;
      fields["domain"] = domain;
      PrintOutcome(ctx, "init", TDC_HRESULT_OK, ms, fields);
      return static_cast<int>(kExitOk);
    };
  });
  AddUser(app, ctx);
  AddDoc(app, ctx);
  AddVersion(app, ctx);
  AddServices(app, ctx);
}

}  // namespace tdoc
