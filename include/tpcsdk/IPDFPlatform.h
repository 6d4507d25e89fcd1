/*
 * IPDFPlatform: the process-wide platform object that TDC_GetTDOCPlatform hands out.
 * It finds service hosts for this machine and user, creates one client per host and
 * hands those clients out. Slot order is the ABI.
 */
#ifndef TPCSDK_IPDFPLATFORM_H
#define TPCSDK_IPDFPLATFORM_H

#include "tpcsdk/tpcsdk.h"

class ITetherdocServer;

class IPDFPlatform {
 public:
  /* 0  Creates (or finds) the client for host and loads its API directory; on 0,
   *    domain receives the service domain the directory names. */
  virtual int InitApi(TDC_LPCWSTR host, TDC_CLIENT_INFO* info, TDC_LPWSTR* domain) = 0;
  /* 1  The domain stored by SetCurrentDomain; -2 (domain untouched) while empty. */
  virtual int GetCurrentDomain(TDC_LPWSTR* domain) = 0;
  /* 2  Stores the host's current domain; nothing else reads it. */
  virtual void SetCurrentDomain(TDC_LPCWSTR domain) = 0;
  /* 3  The client whose service domain equals domain exactly, or null. */
  virtual ITetherdocServer* GetServerByDomain(TDC_LPCWSTR domain) = 0;
  /* 4  The client created for exactly this host, or null. */
  virtual ITetherdocServer* GetServerByHost(TDC_LPCWSTR host) = 0;
  /* 5  The service host from the configuration file or the directory's DNS record. */
  virtual int GetRecordHostFromConfig(TDC_LPWSTR* host) = 0;
  /* 6  The update host from the configuration file or the directory's DNS record. */
  virtual int GetRecordUpdateHostFromConfig(TDC_LPWSTR* host) = 0;
  /* 7  The service host an administrator set by policy or preference file. */
  virtual int GetRecordHostFromGPO(TDC_LPWSTR* host, TDC_LPCWSTR app, TDC_LPCWSTR version,
                                   TDC_LPCWSTR user) = 0;
  /* 8  The update host an administrator set by policy or preference file. */
  virtual int GetRecordUpdateHostFromGPO(TDC_LPWSTR* host, TDC_LPCWSTR app,
                                         TDC_LPCWSTR version) = 0;
  /* 9  The service host of the user's last default sign-in. */
  virtual int GetRecordHostFromLastDefaultLogined(TDC_LPWSTR* host, TDC_LPCWSTR app,
                                                  TDC_LPCWSTR version, TDC_LPCWSTR user) = 0;
  /* 10 1 when this installation works against an enterprise service, else 0. */
  virtual int IsEnterpriseEnv(TDC_LPCWSTR app, TDC_LPCWSTR version, TDC_LPCWSTR user) = 0;
  /* 11 Frees every client's calls in flight; they return with what they had. */
  virtual void StopAllRequest() = 0;

 protected:
  ~IPDFPlatform() = default;
};

#endif /* TPCSDK_IPDFPLATFORM_H */
