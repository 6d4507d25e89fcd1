// CProfstoreEx: the library's implementation of IProfstore, and the process-wide
// getter through which everyone obtains it.
//
// Every setting is looked for in the same order: the preference file ProfStore.xml,
// then the policy key of the local machine, then that of the current user; the first
// source that holds it wins. Lists merge all three. GetDisableInternet and
// GetCollectData fall back on the application's own registry keys after these.
#pragma once
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "profstore/profstore_manager.h"
#include "tpcsdk/IProfstore.h"

namespace tpcsdk {

class CProfstoreEx final : public IProfstore {
 public:
  // Defaults: version "10.0", product kind 1 (editor), and the preference file in
  // ProfStore beside the host's executable. Nothing is read until Init.
  CProfstoreEx();
  ~CProfstoreEx();
  CProfstoreEx(const CProfstoreEx&) = delete;
  CProfstoreEx& operator=(const CProfstoreEx&) = delete;

  // Takes the product kind (0 reader, else editor), a version whose major part
  // becomes "<major>.0" and a path that replaces the default when not empty, then
  // loads the preference file.
  void Init(int32_t kind, const std::u16string& path, const std::u16string& version);

  const std::u16string& Version() const { return m_strVersion; }
  int32_t ProductKind() const { return m_nProductKind; }
  const std::u16string& Path() const { return m_strPath; }

  int GetPrinterName(std::u16string& out) override;
  int GetDistName(std::u16string& out) override;
  int GetMainFrameName(std::u16string& out) override;
  int GetModuleArray(std::u16string& out) override;
  int GetDisableInternet(int32_t& out) override;
  int GetTDOCServerURL(std::u16string& out) override;
  int GetCollectData(int32_t& out) override;
  int GetInternalUpdate(std::u16string& out) override;
  int GetECMPluginArray(std::vector<std::u16string>& out) override;
  int GetUnloadPluginArray(std::vector<std::u16string>& out) override;
  int GetTutorialsUrl(std::u16string& out) override;
  int GetAddinSettings(int32_t& outputPdf, int32_t& viewPdf, int32_t& attachments) override;
  int GetCheckAddinOutputPDF(int32_t& out) override;
  int GetCheckAddinViewPDF(int32_t& out) override;
  int GetCheckAddinAttachments(int32_t& out) override;
  int GetCreatorPortRange(int32_t& min, int32_t& max) override;
  int GetDisableTetherdoc(bool& out) override;
  int GetGPOAppendMode(bool& out) override;
  int GetAutoConvertTetherdoc(bool& out) override;
  int GetOfficeAutoConvertTetherdoc(bool& out) override;
  int GetDisableMajorUpdate(bool& out) override;
  // Destroys the object, and frees its memory when bit 0 of flags is set.
  void Destroy(unsigned int flags) override;

 private:
  int TextShape(const char16_t* item, const char* attr, const char16_t* sub_key,
                const char16_t* value, std::u16string& out);
  int FlagShape(const char16_t* sub_key, const char16_t* name, bool& out);
  int RawModeShape(const char16_t* name, int32_t& out);
  std::vector<std::u16string> ListShape(const char16_t* section, const char16_t* item,
                                        const char* attr, const char16_t* sub_key, bool names);
  bool PortRangeEnd(const char* attr, const char16_t* value, int32_t& out);
  std::u16string ApplicationKey() const;

  std::unique_ptr<CReader_ProfStoreManagerEx> m_pManager;
  std::u16string m_strVersion;
  int32_t m_nProductKind;
  std::u16string m_strPath;
};

// The process-wide preference store. The first call creates it with the product
// kind (0 reader, else editor), the path of ProfStore.xml (empty: beside the host's
// executable) and the host's version (empty: "10.0"); later calls return the same
// object and ignore their arguments. The first call must finish before another
// thread calls. Null only when memory runs out.
IProfstore* GetProfStoreEx(int32_t kind, const std::u16string& path, const std::u16string& version);

// Destroys the process-wide store and clears the pointer, so that the next
// GetProfStoreEx creates a new one. For the end of the process (and tests).
void ReleaseProfStoreEx();

}  // namespace tpcsdk
