// Document and version records: register a document, a version or both at once,
// change and delete versions, and read who owns a document.
#include <string>

#include "operations/op_support.h"
#include "operations/records.h"
#include "platform/diagnostic_log.h"
#include "support/guard.h"
#include "support/out_buffer.h"
#include "support/utf.h"
#include "tpcsdk/tpcsdk.h"
#include "web_service/tetherdoc_server.h"

namespace tpcsdk {
namespace {

using ops::CompactJson;
using ops::IsEmptyWide;
using ops::Utf8Arg;

constexpr char16_t kTokenPlaceholder[] = u"${access-token}";

// The ret values of a rejected record, for each upload. A ret outside the set leaves
// the frame's result in force.
constexpr std::initializer_list<int32_t> kDocumentRejected = {110001, 110003, 110004, 110005};
constexpr std::initializer_list<int32_t> kVersionRejected = {110001, 110002, 110003, 110013};

// The ten members of a document record. Required texts are read as given; an optional
// one left out goes on the wire as an empty string.
template <class Info>
void PutDocumentMembers(ops::FlatRecord& body, const Info& info) {
  body.Text("cAppID", info.cAppID);
  body.Text("cDocID", info.cDocID);
  body.Text("docName", info.docName);
  body.Text("createTime", info.createTime);
  body.Text("modifiedTime", info.modifiedTime);
  body.Text("parentID", info.parentID);
  body.Text("cUserID", info.cUserID);
  body.Text("originalAuthor", info.originalAuthor);
  body.Text("originalFilename", info.originalFilename);
  body.Text("connectedNotification", info.connectedNotification);
}

// The members of a version record that say where its file is and how large it is.
template <class Info>
void PutFileMembers(ops::FlatRecord& body, const Info& info) {
  body.Text("cVersionID", info.cVersionID);
  body.Text("docPath", info.docPath);
  body.Text("docURI", info.docURI);
  body.Number("docSize", static_cast<int64_t>(info.docSize));
  body.Number("docPageCount", static_cast<int64_t>(info.docPageCount));
}

// The stored versions URL with the caller's token in place of its placeholder;
// empty when there is no URL or no placeholder.
std::u16string VersionsUrl(const TetherdocServer& server, const char* token) {
  std::u16string url = server.GetApiUrl(u"url", u"tdc_documents_versions");
  if (url.empty() || !ReplaceFirst(url, kTokenPlaceholder, Utf8ToUtf16(token))) return {};
  return url;
}

}  // namespace

std::u16string TetherdocServer::UploadUrl(const char* name, std::u16string_view key) {
  if (m_pLog) m_pLog->Write("%s", name);
  std::u16string url = GetApiUrl(u"url", key);
  if (url.empty() && m_pLog) m_pLog->Write("%s. url is empty", name);
  return url;
}

int TetherdocServer::PostRecord(const std::u16string& url, const ops::FlatRecord& body,
                                std::initializer_list<int32_t> rejected, bool forbiddenAtOnce) {
  Json::Value reply;
  const int result = RequestJson(reply, url, u"POST", body.Compact());
  if (result == TDC_HRESULT_OK) return result;
  if (forbiddenAtOnce && result == TDC_HRESULT_FORBIDDEN) return result;
  if (ops::IsEmptyJson(reply)) return result;
  ReplyRecord envelope;
  Json::Value data;
  ParseReplyEnvelope(envelope, data, reply);
  return ops::RetIn(envelope.ret, rejected) ? TDC_HRESULT_FORBIDDEN : result;
}

int TetherdocServer::UploadDocInfo(const TDC_DOC_INFO* info) {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    const std::u16string url = UploadUrl("UploadDocInfo", u"tdc_documents");
    if (url.empty()) return TDC_HRESULT_FAILED;
    if (!info || !info->cAppID || !info->cDocID || !info->docName || !info->createTime ||
        !info->modifiedTime)
      return TDC_HRESULT_FAILED;
    if (IsEmptyWide(info->cAppID) || IsEmptyWide(info->cDocID) || IsEmptyWide(info->createTime) ||
        IsEmptyWide(info->docName) || IsEmptyWide(info->modifiedTime)) {
      if (m_pLog)
        m_pLog->Write(
            "UploadDocInfo. parameter is empty, cAppID:%s cDocID:%s createTime:%s docName:%s "
            "modifiedTime:%s",
            Utf8Arg(info->cAppID).c_str(), Utf8Arg(info->cDocID).c_str(),
            Utf8Arg(info->createTime).c_str(), Utf8Arg(info->docName).c_str(),
            Utf8Arg(info->modifiedTime).c_str());
      return TDC_HRESULT_FORBIDDEN;
    }
    ops::FlatRecord body;
    PutDocumentMembers(body, *info);
    return PostRecord(url, body, kDocumentRejected, false);
  });
}

int TetherdocServer::UploadVersionInfo(const TDC_VERSION_INFO* info) {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    const std::u16string url = UploadUrl("UploadVersionInfo", u"tdc_documents_versions");
    if (url.empty()) return TDC_HRESULT_FAILED;
    if (!info || !info->cAppID || !info->cDocID || !info->cVersionID || !info->docName ||
        !info->createTime)
      return TDC_HRESULT_FAILED;
    if (IsEmptyWide(info->cAppID) || IsEmptyWide(info->cDocID) || IsEmptyWide(info->cVersionID) ||
        IsEmptyWide(info->createTime) || IsEmptyWide(info->docName) || info->docPageCount == 0) {
      // The page count takes part in the refusal but not in the line.
      if (m_pLog)
        m_pLog->Write(
            "UploadVersionInfo. parameter is empty, cAppID:%s cDocID:%s cVersionID:%s "
            "createTime%s docName%s",
            Utf8Arg(info->cAppID).c_str(), Utf8Arg(info->cDocID).c_str(),
            Utf8Arg(info->cVersionID).c_str(), Utf8Arg(info->createTime).c_str(),
            Utf8Arg(info->docName).c_str());
      return TDC_HRESULT_FORBIDDEN;
    }
    ops::FlatRecord body;
    body.Text("cAppID", info->cAppID);
    body.Text("cDocID", info->cDocID);
    body.Text("parentID", info->parentID);
    body.Text("cUserID", info->cUserID);
    body.Text("createTime", info->createTime);
    body.Text("docName", info->docName);
    PutFileMembers(body, *info);
    return PostRecord(url, body, kVersionRejected, true);
  });
}

int TetherdocServer::UpLoadTDOC(const TDC_TDOC_INFO* info) {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    if (!info || !info->cAppID || !info->cDocID || !info->modifiedTime || !info->createTime ||
        !info->docName || !info->cVersionID || !info->docPath)
      return TDC_HRESULT_FAILED;
    // The only upload that carries the stored token, in its URL.
    const std::u16string url = ResolveTokenUrl(u"tdc_documents_tdoc");
    if (url.empty()) return TDC_HRESULT_FAILED;
    if (IsEmptyWide(info->cAppID) || IsEmptyWide(info->cDocID) || IsEmptyWide(info->cVersionID) ||
        IsEmptyWide(info->createTime) || IsEmptyWide(info->docName) ||
        IsEmptyWide(info->modifiedTime) || info->docPageCount == 0)
      return TDC_HRESULT_FORBIDDEN;
    ops::FlatRecord body;
    PutDocumentMembers(body, *info);
    body.Text("parentVersionID", info->parentVersionID);
    PutFileMembers(body, *info);
    return PostRecord(url, body, kDocumentRejected, false);
  });
}

int TetherdocServer::ModifyDocVersion(const char* token, const char* json) {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    if (!token || !json) return TDC_HRESULT_FAILED;
    // The token is logged in clear, as the service's support has always read it.
    if (m_pLog) m_pLog->Write("ModifyDocVersion lpsUserToken:%s lpsJson:%s,", token, json);
    const std::u16string url = VersionsUrl(*this, token);
    if (url.empty()) return TDC_HRESULT_FAILED;
    // The caller's JSON goes out as given; the reply is not read.
    Json::Value reply;
    return RequestJson(reply, url, u"PUT", json);
  });
}

int TetherdocServer::DeleteDocVersion(const char* token, const char* cVersionID) {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    if (!token || !cVersionID) return TDC_HRESULT_FAILED;
    const std::u16string url = VersionsUrl(*this, token);
    if (url.empty() || !*cVersionID) return TDC_HRESULT_FAILED;
    // The version travels in the body, not in the URL.
    Json::Value body(Json::objectValue);
    body["cVersionID"] = cVersionID;
    Json::Value reply;
    return RequestJson(reply, url, u"DELETE", CompactJson(body));
  });
}

int TetherdocServer::FetchDocument(DocumentRecord& record) {
  if (record.cDocID.empty()) return TDC_HRESULT_FAILED;
  std::u16string url = GetApiUrl(u"url", u"tdc_documents");
  if (url.empty()) return TDC_HRESULT_FAILED;
  url += u"?cDocID=" + Utf8ToUtf16(record.cDocID);
  Json::Value reply;
  const int result = RequestJson(reply, url, u"GET", std::string());
  if (result == TDC_HRESULT_OK)
    return ParseDocumentRecord(record, reply) ? TDC_HRESULT_OK : TDC_HRESULT_FAILED;
  // A failed look-up answers with the service's own code when the reply carries one.
  // A ret that is not a number (or none) cannot stand for the service's answer, and
  // must never read as success: the frame's result stands then.
  if (reply.isObject() && !reply.empty()) {
    const Json::Value& ret = ops::Member(reply, "ret");
    if (!ret.isNull() && ret.isConvertibleTo(Json::intValue)) return ret.asInt();
  }
  return result;
}

int TetherdocServer::GetDocOwnerID(const char* cDocID, char** owner) {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    if (!cDocID || !owner) return TDC_HRESULT_FAILED;
    DocumentRecord doc;
    doc.cDocID = cDocID;
    const int result = FetchDocument(doc);
    if (result != TDC_HRESULT_OK) return result;
    if (doc.cUserID.empty()) return TDC_HRESULT_FAILED;
    return ops::GiveText(owner, doc.cUserID) ? TDC_HRESULT_OK : TDC_HRESULT_FAILED;
  });
}

int TetherdocServer::GetOwnerEmail(const void*, const char* cDocID, char** email,
                                   TDC_LPWSTR* name, char** mobile) {
  return Guarded(TDC_HRESULT_FAILED, [&]() -> int {
    if (!cDocID || !email || !name || !mobile) return TDC_HRESULT_FAILED;
    DocumentRecord doc;
    doc.cDocID = cDocID;
    const int result = FetchDocument(doc);
    if (result != TDC_HRESULT_OK) return result;
    if (doc.cUserID.empty()) return TDC_HRESULT_FAILED;
    UserRecord user;
    user.cUserID = doc.cUserID;
    if (FetchUser(user) != TDC_HRESULT_OK) return TDC_HRESULT_FAILED;

    std::u16string fullName = user.firstname;
    if (!fullName.empty() && !user.lastname.empty()) fullName += u' ';
    fullName += user.lastname;
    // Every buffer is made before any is handed out, so a failure leaves all three alone.
    char* emailBlock = user.userEmail.empty() ? nullptr : NewTextBlock(user.userEmail);
    TDC_LPWSTR nameBlock = NewWideBlock(fullName);
    char* mobileBlock = user.userMobile.empty() ? nullptr : NewTextBlock(user.userMobile);
    if (!nameBlock || (!user.userEmail.empty() && !emailBlock) ||
        (!user.userMobile.empty() && !mobileBlock)) {
      FreeBlock(emailBlock);
      FreeBlock(nameBlock);
      FreeBlock(mobileBlock);
      return TDC_HRESULT_FAILED;
    }
    if (emailBlock) *email = emailBlock;
    *name = nameBlock;
    if (mobileBlock) *mobile = mobileBlock;
    return TDC_HRESULT_OK;
  });
}

}  // namespace tpcsdk
