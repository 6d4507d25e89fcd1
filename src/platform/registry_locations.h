// Every registry key and value the module reads. Nothing else in the module spells
// a key path or a value name: a reader takes its location from here.
//
// The vendor's keys, <vendor> = SOFTWARE\Tarvo Software:
//   current user   <vendor>\<product> <major>.0\plugins\TDOCServer      EnterpriseTenantDomain, Test
//   current user   <vendor>\<product> <major>.0\Tetherdoc               DisableFindHost
//   current user   <vendor>\<application> <major>.0\plugins\TDOCServer\LoginedService
//                  one value per service host; "1" marks the default
//   all users      <user SID>\<vendor>\... the same LoginedService key of another user
//   local machine  <vendor>\<product>                                  InstallPath, bDisableInternet
//   current user   <vendor>\<product>\<version>\Preferences\General    bDisableInternet, bCollectData
// The policy keys, Software\Policies\<product policy key> under the machine and the
// user, hold the preference store's values (below).
#pragma once
#include <string>
#include <string_view>

#include "platform/product_identity.h"

namespace tpcsdk::reg {

// ---- The vendor's keys. ----

inline constexpr char16_t kVendorKey[] = u"SOFTWARE\\Tarvo Software\\";

// <vendor>\<product name> <major>.0: the product key of a major release.
inline std::u16string ProductVersionKey(ProductKind kind, std::u16string_view version) {
  return kVendorKey + ProductKey(ProductName(kind), version);
}
// <vendor>\<product name>: the product's key for all its releases.
inline std::u16string ProductKeyAllVersions(ProductKind kind) { return kVendorKey + std::u16string(ProductName(kind)); }

// Below the product key of a major release.
inline constexpr char16_t kServicePluginKey[] = u"\\plugins\\TDOCServer";
inline constexpr char16_t kTenantValue[] = u"EnterpriseTenantDomain";
inline constexpr char16_t kTestSwitchValue[] = u"Test";
inline constexpr char16_t kFindHostKey[] = u"\\Tetherdoc\\";
inline constexpr char16_t kDisableFindHostValue[] = u"DisableFindHost";

// <vendor>\<application> <major>.0\plugins\TDOCServer\LoginedService, with the
// caller's application name as it is; for another user the key stands in the hive of
// all users behind the user's security identifier.
inline std::u16string SignedInServicesKey(std::u16string_view user, std::u16string_view application,
                                          std::u16string_view version) {
  std::u16string path = user.empty() ? std::u16string() : std::u16string(user) + u"\\";
  return path + kVendorKey + ProductKey(application, version) + kServicePluginKey + u"\\LoginedService";
}

// Below the product's key for all releases (local machine).
inline constexpr char16_t kInstallPathValue[] = u"InstallPath";
inline constexpr char16_t kDisableInternetValue[] = u"bDisableInternet";
// <product key>\<version>\Preferences\General (current user).
inline constexpr char16_t kGeneralPreferencesKey[] = u"\\Preferences\\General";
inline constexpr char16_t kCollectDataValue[] = u"bCollectData";

// ---- The policy keys. ----

inline constexpr char16_t kPoliciesKey[] = u"Software\\Policies";

// The product's key below Software\Policies, newest name first: the name changed
// between generations of the product.
inline constexpr int kPolicyProductKeyCount = 4;
inline constexpr const char16_t* kReaderPolicyKeys[kPolicyProductKeyCount] = {
    u"Tarvo\\PDFReader", u"Tarvo\\Reader", u"Tarvo\\Reader 9.0", u"Tarvo\\Reader 8.0"};
inline constexpr const char16_t* kEditorPolicyKeys[kPolicyProductKeyCount] = {
    u"Tarvo\\PDFEditor", u"Tarvo\\BrindlePDF", u"Tarvo\\BrindlePDF 9.0", u"Tarvo\\BrindlePDF 8.0"};

// Sub-keys of the product's policy key.
inline constexpr char16_t kPolicyPreferences[] = u"Preferences";
inline constexpr char16_t kPolicyTdoc[] = u"TDOC";
inline constexpr char16_t kPolicyTdocPreferences[] = u"TDOC\\Preferences";
inline constexpr char16_t kPolicyModules[] = u"Modules";
inline constexpr char16_t kPolicyPlugins[] = u"Plugins";
inline constexpr char16_t kPolicyConnectionExceptions[] = u"Preferences\\InternetConnectionExcepMenu";

// Policy values, by the sub-key they stand in.
// Preferences:
inline constexpr char16_t kPolicyPrinterName[] = u"PrinterName";
inline constexpr char16_t kPolicyDistName[] = u"DistName";
inline constexpr char16_t kPolicyMainFrameName[] = u"MainframeName";  // the file's item is MainFrameName
inline constexpr char16_t kPolicyInternetConnection[] = u"InternetConnection";
inline constexpr char16_t kPolicyCollectData[] = u"CollectData";
inline constexpr char16_t kPolicyTutorialsUrl[] = u"TutorialsUrl";
inline constexpr char16_t kPolicyCheckAddinOutputPdf[] = u"bCheckAddinOutputPDF";
inline constexpr char16_t kPolicyCheckAddinViewPdf[] = u"bCheckAddinViewPDF";
inline constexpr char16_t kPolicyCheckAddinAttachments[] = u"bCheckAddinAttachments";
inline constexpr char16_t kPolicyCreatorPortRangeMin[] = u"CreatorPortRangeMin";
inline constexpr char16_t kPolicyCreatorPortRangeMax[] = u"CreatorPortRangeMax";
inline constexpr char16_t kPolicyGpoAppendMode[] = u"GPOAppendMode";
inline constexpr char16_t kPolicyDisableMajorUpdate[] = u"DisableMajorUpdate";
// TDOC:
inline constexpr char16_t kPolicyServiceUrl[] = u"TDOCServer";
inline constexpr char16_t kPolicyInternalUpdate[] = u"InternalUpdate";
inline constexpr char16_t kPolicyDisableTetherdoc[] = u"disableTetherdoc";
// TDOC\Preferences:
inline constexpr char16_t kPolicyAutoConvertTetherdoc[] = u"AutoConvertTetherdoc";
inline constexpr char16_t kPolicyOfficeAutoConvertTetherdoc[] = u"OfficeAutoConvertTetherdoc";
// Modules and Plugins: the data of every value; the exception menu: every value's name.

// ---- What an administrator sets. ----
// The administrative templates (admin/windows) and the example hives (admin/linux)
// name exactly these values; a test holds them to this list.

// How a value is read: a string, a 32-bit number, or a whole key whose values make
// a list (their data, or their names).
enum class AdminValueKind { kText, kNumber, kListOfData, kListOfNames };

struct AdminValue {
  const char16_t* subkey;  // below the key the table names
  const char16_t* name;    // null for a list: every value of the key counts
  AdminValueKind kind;
};

// Below Software\Policies\<product policy key>, under the machine and the user (the
// machine's value wins). The templates use the newest product key of each product.
inline constexpr AdminValue kAdminPolicyValues[] = {
    {kPolicyPreferences, kPolicyPrinterName, AdminValueKind::kText},
    {kPolicyPreferences, kPolicyDistName, AdminValueKind::kText},
    {kPolicyPreferences, kPolicyMainFrameName, AdminValueKind::kText},
    {kPolicyPreferences, kPolicyInternetConnection, AdminValueKind::kNumber},
    {kPolicyPreferences, kPolicyCollectData, AdminValueKind::kNumber},
    {kPolicyPreferences, kPolicyTutorialsUrl, AdminValueKind::kText},
    {kPolicyPreferences, kPolicyCheckAddinOutputPdf, AdminValueKind::kNumber},
    {kPolicyPreferences, kPolicyCheckAddinViewPdf, AdminValueKind::kNumber},
    {kPolicyPreferences, kPolicyCheckAddinAttachments, AdminValueKind::kNumber},
    {kPolicyPreferences, kPolicyCreatorPortRangeMin, AdminValueKind::kNumber},
    {kPolicyPreferences, kPolicyCreatorPortRangeMax, AdminValueKind::kNumber},
    {kPolicyPreferences, kPolicyGpoAppendMode, AdminValueKind::kNumber},
    {kPolicyPreferences, kPolicyDisableMajorUpdate, AdminValueKind::kNumber},
    {kPolicyTdoc, kPolicyServiceUrl, AdminValueKind::kText},
    {kPolicyTdoc, kPolicyInternalUpdate, AdminValueKind::kText},
    {kPolicyTdoc, kPolicyDisableTetherdoc, AdminValueKind::kNumber},
    {kPolicyTdocPreferences, kPolicyAutoConvertTetherdoc, AdminValueKind::kNumber},
    {kPolicyTdocPreferences, kPolicyOfficeAutoConvertTetherdoc, AdminValueKind::kNumber},
    {kPolicyModules, nullptr, AdminValueKind::kListOfData},
    {kPolicyPlugins, nullptr, AdminValueKind::kListOfData},
    {kPolicyConnectionExceptions, nullptr, AdminValueKind::kListOfNames},
};

// Below the current user's product key of a major release, ProductVersionKey(kind,
// version): the tenant's service host and the switch that keeps host discovery off DNS.
inline constexpr AdminValue kAdminUserReleaseValues[] = {
    {kServicePluginKey, kTenantValue, AdminValueKind::kText},
    {kFindHostKey, kDisableFindHostValue, AdminValueKind::kText},
};

// The major release the templates are written for; an administrator of another
// release changes the version in their key paths.
inline constexpr char16_t kAdminTemplateVersion[] = u"12.0";

}  // namespace tpcsdk::reg
