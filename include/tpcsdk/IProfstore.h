/*
 * IProfstore: the read-only view of settings that an administrator or installer laid
 * down for the host application (the preference file ProfStore.xml, then machine
 * policy, then user policy). C++ only; the object is process-wide and owned by the
 * module.
 *
 * Every read returns 1 when the value was found and 0 when it was not; on 0 the
 * output is left as it was, unless a slot's note says otherwise.
 */
#ifndef TPCSDK_IPROFSTORE_H
#define TPCSDK_IPROFSTORE_H

#include <cstdint>
#include <string>
#include <vector>

class IProfstore {
 public:
  /* 0  Preferences/PrinterName: the printer's name. */
  virtual int GetPrinterName(std::u16string& out) = 0;
  /* 1  Preferences/DistName: the distribution's name. */
  virtual int GetDistName(std::u16string& out) = 0;
  /* 2  Preferences/MainFrameName: the main window's title. */
  virtual int GetMainFrameName(std::u16string& out) = 0;
  /* 3  Modules: the module list of every source, merged, each item followed by ";". */
  virtual int GetModuleArray(std::u16string& out) = 0;
  /* 4  Preferences/InternetConnection: 1 when the connection is switched off. */
  virtual int GetDisableInternet(int32_t& out) = 0;
  /* 5  TDOC/TDOCServer: the service host the administrator set, trimmed. */
  virtual int GetTDOCServerURL(std::u16string& out) = 0;
  /* 6  Preferences/CollectData: 1 when usage data may be collected. */
  virtual int GetCollectData(int32_t& out) = 0;
  /* 7  TDOC/InternalUpdate: the host of internal updates. */
  virtual int GetInternalUpdate(std::u16string& out) = 0;
  /* 8  ECMPlugins: the plug-ins of the connection-exception menu, merged. */
  virtual int GetECMPluginArray(std::vector<std::u16string>& out) = 0;
  /* 9  Plugins: the plug-ins not to load, merged. */
  virtual int GetUnloadPluginArray(std::vector<std::u16string>& out) = 0;
  /* 10 Preferences/TutorialsUrl: where the tutorials are. */
  virtual int GetTutorialsUrl(std::u16string& out) = 0;
  /* 11 The three add-in switches of slots 12 to 14 as 0 or 1; 1 when any was found. */
  virtual int GetAddinSettings(int32_t& outputPdf, int32_t& viewPdf, int32_t& attachments) = 0;
  /* 12 Preferences/bCheckAddinOutputPDF, the raw value. */
  virtual int GetCheckAddinOutputPDF(int32_t& out) = 0;
  /* 13 Preferences/bCheckAddinViewPDF, the raw value. */
  virtual int GetCheckAddinViewPDF(int32_t& out) = 0;
  /* 14 Preferences/bCheckAddinAttachments, the raw value. */
  virtual int GetCheckAddinAttachments(int32_t& out) = 0;
  /* 15 Preferences/CreatorPortRange: both ends, or nothing when either is missing or min > max. */
  virtual int GetCreatorPortRange(int32_t& min, int32_t& max) = 0;
  /* 16 TDOC/disableTetherdoc. */
  virtual int GetDisableTetherdoc(bool& out) = 0;
  /* 17 Preferences/GPOAppendMode. */
  virtual int GetGPOAppendMode(bool& out) = 0;
  /* 18 TDOC\Preferences/AutoConvertTetherdoc. */
  virtual int GetAutoConvertTetherdoc(bool& out) = 0;
  /* 19 TDOC\Preferences/OfficeAutoConvertTetherdoc. */
  virtual int GetOfficeAutoConvertTetherdoc(bool& out) = 0;
  /* 20 Preferences/DisableMajorUpdate. */
  virtual int GetDisableMajorUpdate(bool& out) = 0;
  /* 21 Destroys the object (bit 0 of flags: free its memory). The module owns the
   *    object; callers never destroy it. Declared as an ordinary slot so that the
   *    interface has the same 22 slots under every compiler's object model. */
  virtual void Destroy(unsigned int flags) = 0;

 protected:
  ~IProfstore() = default;
};

#endif /* TPCSDK_IPROFSTORE_H */
