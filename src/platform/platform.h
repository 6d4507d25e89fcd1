// TDOCPlatform: the process-wide platform object behind IPDFPlatform.
#pragma once
#include <mutex>
#include <string>
#include <vector>

#include "tpcsdk/IPDFPlatform.h"

class IProfstore;

namespace tpcsdk {

class ConfigFile;
class DiagnosticLog;
class TetherdocServer;

class TDOCPlatform final : public IPDFPlatform {
 public:
  TDOCPlatform();
  ~TDOCPlatform();
  TDOCPlatform(const TDOCPlatform&) = delete;
  TDOCPlatform& operator=(const TDOCPlatform&) = delete;

  // The singleton: created on first use, null when memory ran out (the next call
  // tries again). No lock: the first call must come before other threads start.
  static TDOCPlatform* Instance();
  // The singleton if it exists, without creating it.
  static TDOCPlatform* Existing();
  // Ends the singleton at module end. When the process is ending, other threads are
  // gone, so only the log is closed and nothing is waited for.
  static void ExitInstance(bool processEnding);

  int InitApi(TDC_LPCWSTR host, TDC_CLIENT_INFO* info, TDC_LPWSTR* domain) override;
  int GetCurrentDomain(TDC_LPWSTR* domain) override;
  void SetCurrentDomain(TDC_LPCWSTR domain) override;
  ITetherdocServer* GetServerByDomain(TDC_LPCWSTR domain) override;
  ITetherdocServer* GetServerByHost(TDC_LPCWSTR host) override;
  int GetRecordHostFromConfig(TDC_LPWSTR* host) override;
  int GetRecordUpdateHostFromConfig(TDC_LPWSTR* host) override;
  int GetRecordHostFromGPO(TDC_LPWSTR* host, TDC_LPCWSTR app, TDC_LPCWSTR version,
                           TDC_LPCWSTR user) override;
  int GetRecordUpdateHostFromGPO(TDC_LPWSTR* host, TDC_LPCWSTR app,
                                 TDC_LPCWSTR version) override;
  int GetRecordHostFromLastDefaultLogined(TDC_LPWSTR* host, TDC_LPCWSTR app,
                                          TDC_LPCWSTR version, TDC_LPCWSTR user) override;
  int IsEnterpriseEnv(TDC_LPCWSTR app, TDC_LPCWSTR version, TDC_LPCWSTR user) override;
  void StopAllRequest() override;

  DiagnosticLog* Log() const { return m_pLog; }
  // Switches logging on for this object (the configuration step normally decides).
  void EnableLogging();

 private:
  int InitApiImpl(TDC_LPCWSTR host, TDC_CLIENT_INFO* info, TDC_LPWSTR* domain);
  int GetCurrentDomainImpl(TDC_LPWSTR* domain);
  TetherdocServer* FindByHost(const std::u16string& host) const;
  TetherdocServer* FindByDomain(const std::u16string& domain) const;

  // Configuration and host discovery (host_discovery.cpp).
  void ReadConfiguration();
  void TakeSharedConfigKeys(const ConfigFile& file);
  std::u16string LookupHostFromDns();
  std::u16string LookupUpdateHostFromDns();
  int RecordHostFromConfig(TDC_LPWSTR* host);
  int RecordUpdateHostFromConfig(TDC_LPWSTR* host);
  int RecordHostFromGPO(TDC_LPWSTR* host, const std::u16string& app, const std::u16string& version);
  int RecordUpdateHostFromGPO(TDC_LPWSTR* host, const std::u16string& app,
                              const std::u16string& version);
  int RecordHostFromLastDefaultLogined(TDC_LPWSTR* host, const std::u16string& app,
                                       const std::u16string& version, const std::u16string& user);
  int EnterpriseEnv(TDC_LPCWSTR app, TDC_LPCWSTR version, TDC_LPCWSTR user);
  IProfstore* PreferenceStore(bool editor, const std::u16string& path, const std::u16string& version);

  std::vector<TetherdocServer*> m_clients;
  std::u16string m_wsCurrentDomain;
  std::recursive_mutex m_lockInitApi;
  // Slot 10 runs beside slots 5 and 6 without the host look-up lock, and all three
  // write what the configuration file and the DNS look-up give. Those fields change
  // and are read under m_lockConfigFields, which is held for the copy alone, never
  // across a file read or a DNS query.
  std::mutex m_lockConfigFields;
  int m_nLogging = 0;
  std::u16string m_wsAppType;
  std::recursive_mutex m_lockHostLookup;
  DiagnosticLog* m_pLog = nullptr;
  std::u16string m_wsDomainSuffix;
  std::u16string m_wsDnsHost;
  bool m_bDnsHostDone = false;
  IProfstore* m_pProfstore = nullptr;
  std::u16string m_wsDnsUpdateHost;
  bool m_bDnsUpdateHostDone = false;
  int m_nFindHostDisabled = 0;
};

}  // namespace tpcsdk
