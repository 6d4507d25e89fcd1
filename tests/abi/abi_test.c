/* Loads the module the way a host does, resolves every export by name and calls the
 * platform through its C view. Prints a summary in the test runner's format. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "tpcsdk/tpcsdk.h"

#if defined(_WIN32)
#include <windows.h>
typedef HMODULE Module;
static Module OpenModule(void) { return LoadLibraryW(L"TPCSDK64.dll"); }
static void* Symbol(Module m, const char* name) { return (void*)GetProcAddress(m, name); }
#else
#include <dlfcn.h>
#include <limits.h>
#include <unistd.h>
typedef void* Module;
static Module OpenModule(void) {
  /* The module sits beside this program. */
  char path[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", path, sizeof(path) - 32);
  if (n <= 0) return NULL;
  path[n] = 0;
  char* slash = strrchr(path, '/');
  strcpy(slash ? slash + 1 : path, "libtpcsdk.so");
  return dlopen(path, RTLD_NOW | RTLD_LOCAL);
}
static void* Symbol(Module m, const char* name) { return dlsym(m, name); }
#endif

static int g_passed, g_failed;

static void Check(int ok, const char* what) {
  if (ok) {
    ++g_passed;
  } else {
    ++g_failed;
    printf("[  FAILED  ] %s\n", what);
  }
}

static const char* const kExports[] = {
    "TDC_GetTDOCPlatform", "TDC_ReleaseTDOCPlatform", "TDC_ReleaseLPSTR", "TDC_ReleaseLPWSTR",
    "TDC_ReleaseBuffer", "TDC_ReleaseBuffer2", "TDC_UpLoadGrayLog", "TDC_AddShareReviewUser",
    "TDC_AddConnectedReviewDoc", "TDC_AddDrmPermission", "TDC_AddShareReviewAnnot",
    "TDC_ChangeMessageDelivery", "TDC_ChangeWebService", "TDC_CopyDRMInfo",
    "TDC_DelConnectedReviewDoc", "TDC_DeleteTDOC", "TDC_DeleteDRMInfo", "TDC_DeleteDocVersion",
    "TDC_DeleteShareReviewAnnot", "TDC_DocIsShareReview", "TDC_GetACL",
    "TDC_GetAppeDocPermission", "TDC_GetContentKey", "TDC_GetCurrentHost", "TDC_GetDocInfo",
    "TDC_GetDocOwnerID", "TDC_GetDocumentMessage", "TDC_GetEmail", "TDC_GetJSPluginHost",
    "TDC_GetLastNetworkError", "TDC_GetOpenMessage", "TDC_GetOwnerEmail", "TDC_GetPollingInfo",
    "TDC_GetRecordedHost", "TDC_GetServiceCollectStrategy", "TDC_GetShareReviewAnnot",
    "TDC_GetShareReviewInitiatorEmail", "TDC_GetShareReviewPageObjNumList",
    "TDC_GetShareReviewUserInfo", "TDC_GetShareReviewUserList", "TDC_GetUntreatedMessageCount",
    "TDC_GetUserDeviceInfo", "TDC_GetUserOwnAllAnnots", "TDC_GetWebServiceURL",
    "TDC_GetWebServiceURLbyHost", "TDC_InitDLL", "TDC_IsEnterpriseEnv", "TDC_IsSecureRemoved",
    "TDC_LoadcAppID", "TDC_ModifyDocVersion", "TDC_RemoveSecure", "TDC_SendConfirmReply",
    "TDC_SendEmailNotification", "TDC_SetAppeDocPermission", "TDC_SetClientLanguage",
    "TDC_SetClientVersion", "TDC_SetConnectedReviewPollTime", "TDC_SetCurrentHost",
    "TDC_SetDocumentMessage", "TDC_SetEnforcedTracking", "TDC_SetPollingConfig",
    "TDC_SetShareReviewState", "TDC_SetShareReviewUserState", "TDC_SetSubscribtionCallback",
    "TDC_SetUserToken", "TDC_StartPolling", "TDC_StartShareReview", "TDC_StopAllRequest",
    "TDC_StopPolling", "TDC_SubscribeUpdateNotification", "TDC_SubscribeUser",
    "TDC_SubscribecAppID", "TDC_UnSubscribeUpdateNotification", "TDC_UnSubscribeUser",
    "TDC_UnSubscribecAppID", "TDC_UpLoadTDOC", "TDC_UpLoadDocID", "TDC_UpLoadUserLogger",
    "TDC_UpLoadVersionID", "TDC_UpdateNotificationSendEmail", "TDC_UpdateShareReviewAnnot",
    "TDC_UpdateWebServiceApi", "TDC_UploadDRMInfo", "TDC_UploadImage",
    "TDC_UserCanJoinShareReview", "TDC_getConfigUrl", "TDC_isUserOnLine", "TDC_stopThread",
};
enum { kExportCount = sizeof(kExports) / sizeof(kExports[0]), kFirstRetired = 8 };

static int SameWide(TDC_LPCWSTR a, const char* ascii) {
  if (!a) return 0;
  while (*ascii && *a == (TDC_WCHAR)*ascii) ++a, ++ascii;
  return *a == 0 && *ascii == 0;
}

typedef IPDFPlatform* (*GetPlatformFn)(void);
typedef void (*VoidFn)(void);
typedef int (*ReleaseFn)(void*);
typedef int (*IntFn)(void);
typedef int (*GrayLogFn)(int32_t);
typedef int (*PtrFn)(const void*);

int main(void) {
  Module module = OpenModule();
  Check(module != NULL, "the module loads");
  if (!module) {
    printf("[  FAILED  ] %d tests\n", g_failed);
    return 1;
  }

  int resolved = 0;
  for (int i = 0; i < kExportCount; ++i) {
    if (Symbol(module, kExports[i])) ++resolved;
    else printf("missing export %s\n", kExports[i]);
  }
  Check(kExportCount == 88 && resolved == 88, "all 88 exports resolve by name");

  GetPlatformFn getPlatform = (GetPlatformFn)Symbol(module, "TDC_GetTDOCPlatform");
  VoidFn releasePlatform = (VoidFn)Symbol(module, "TDC_ReleaseTDOCPlatform");
  IPDFPlatform* platform = getPlatform ? getPlatform() : NULL;
  Check(platform != NULL && platform->lpVtbl != NULL, "the platform object exists");
  if (platform && releasePlatform) {
    releasePlatform();
    Check(getPlatform() == platform, "release leaves the same platform in place");
  }

  /* The release family: null gives -2, a block from the library gives 0. */
  static const char* const kRelease[] = {"TDC_ReleaseLPSTR", "TDC_ReleaseLPWSTR",
                                         "TDC_ReleaseBuffer", "TDC_ReleaseBuffer2"};
  for (int i = 0; i < 4; ++i) {
    ReleaseFn release = (ReleaseFn)Symbol(module, kRelease[i]);
    Check(release && release(NULL) == TDC_HRESULT_FAILED, kRelease[i]);
  }

  if (platform) {
    const struct IPDFPlatformVtbl* v = platform->lpVtbl;
    TDC_LPWSTR domain = (TDC_LPWSTR)(void*)&g_passed; /* a sentinel that must survive */
    TDC_LPWSTR before = domain;
    Check(v->GetCurrentDomain(platform, &domain) == TDC_HRESULT_FAILED && domain == before,
          "GetCurrentDomain on a new platform gives -2 and leaves the out alone");

    static const TDC_WCHAR kDomain[] = {'h', 't', 't', 'p', 's', ':', '/', '/', 'd', '.',
                                        'e', 'x', 'a', 'm', 'p', 'l', 'e', 0};
    v->SetCurrentDomain(platform, kDomain);
    domain = NULL;
    Check(v->GetCurrentDomain(platform, &domain) == TDC_HRESULT_OK &&
              SameWide(domain, "https://d.example"),
          "GetCurrentDomain gives what SetCurrentDomain stored");
    ReleaseFn releaseWide = (ReleaseFn)Symbol(module, "TDC_ReleaseLPWSTR");
    Check(releaseWide && releaseWide(domain) == TDC_HRESULT_OK, "the domain block is released");

    Check(v->GetServerByHost(platform, kDomain) == NULL, "no client for an unknown host");
    Check(v->GetServerByDomain(platform, kDomain) == NULL, "no client for an unknown domain");
    Check(v->InitApi(platform, NULL, NULL, NULL) == TDC_HRESULT_FAILED, "InitApi with null host");
    v->StopAllRequest(platform);
    domain = NULL;
    Check(v->GetCurrentDomain(platform, &domain) == TDC_HRESULT_OK && SameWide(domain, "https://d.example") &&
              releaseWide && releaseWide(domain) == TDC_HRESULT_OK,
          "StopAllRequest with no clients leaves the platform's state as it was");
  }

  GrayLogFn grayLog = (GrayLogFn)Symbol(module, "TDC_UpLoadGrayLog");
  int allFail = grayLog != NULL;
  for (int level = -1; grayLog && level <= 4; ++level)
    allFail &= grayLog(level) == TDC_HRESULT_FAILED;
  Check(allFail, "TDC_UpLoadGrayLog gives -2 for every level");

  PtrFn addUser = (PtrFn)Symbol(module, "TDC_AddShareReviewUser");
  Check(addUser && addUser(NULL) == TDC_HRESULT_OK && addUser(&g_passed) == TDC_HRESULT_FAILED,
        "TDC_AddShareReviewUser: 0 for null, -2 otherwise");

  int retired = 0;
  for (int i = kFirstRetired; i < kExportCount; ++i) {
    IntFn fn = (IntFn)Symbol(module, kExports[i]);
    if (fn && fn() == TDC_HRESULT_FAILED) ++retired;
  }
  Check(retired == 80, "every retired export gives -2");

  /* Unloading ends the platform; it must return. */
#if defined(_WIN32)
  Check(FreeLibrary(module) != 0, "the module unloads");
#else
  Check(dlclose(module) == 0, "the module unloads");
#endif

  if (g_failed == 0) printf("[  PASSED  ] %d tests.\n", g_passed);
  else printf("[  PASSED  ] %d tests.\n[  FAILED  ] %d tests, listed above\n", g_passed, g_failed);
  return g_failed ? 1 : 0;
}
