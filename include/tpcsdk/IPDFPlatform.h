/*
 * IPDFPlatform: the process-wide platform object that TDC_GetTDOCPlatform hands out.
 * It finds service hosts for this machine and user, creates one client per host and
 * hands those clients out. Slot order is the ABI.
 *
 * Ownership: the platform lives until the module is unloaded (TDC_ReleaseTDOCPlatform
 * does nothing) and owns every client it creates. Every text handed out through an
 * out parameter is a new block of the caller's, given back with TDC_ReleaseLPWSTR.
 * Texts passed in are read during the call only. No slot throws; no slot retries or
 * times out on its own.
 */
#ifndef TPCSDK_IPDFPLATFORM_H
#define TPCSDK_IPDFPLATFORM_H

#include "tpcsdk/tpcsdk.h"

class ITetherdocServer;

class IPDFPlatform {
 public:
  /* 0  InitApi: creates the client for host, or finds the one made before.
   *    host   the service host URL, UTF-16; compared exactly (case and all) with the
   *           hosts of existing clients. NULL or empty gives -2.
   *    info   the host's identity (TDC_CLIENT_INFO); read only when a new client is
   *           made, and copied, so it may be freed on return. A NULL record or member
   *           gives -2; an empty language, name or version gives 5.
   *    domain out: on 0, a new block with the service domain the API directory
   *           names (tdc_domain), which is not necessarily host. Free it with
   *           TDC_ReleaseLPWSTR. Untouched on failure; may be NULL.
   *    Result: 0, or the failure of loading the API directory (the network fetch,
   *    unless the disk cache holds a fresh copy); a client that fails is not kept,
   *    and the next call starts over. A client that is kept lives until the module
   *    is unloaded.
   *    Threads: any thread. Creations are serialised by a lock held across the
   *    network fetch, so one slow host delays the others. Two threads asking for the
   *    same new host at once may both create a client; GetServerByHost then gives
   *    the first. */
  virtual int InitApi(TDC_LPCWSTR host, TDC_CLIENT_INFO* info, TDC_LPWSTR* domain) = 0;
  /* 1  GetCurrentDomain: out: a new block (TDC_ReleaseLPWSTR) with what
   *    SetCurrentDomain stored. -2, with domain untouched, while nothing is stored. */
  virtual int GetCurrentDomain(TDC_LPWSTR* domain) = 0;
  /* 2  SetCurrentDomain: stores a copy of domain for GetCurrentDomain; nothing else
   *    reads it. NULL stores the empty text. Not locked: do not call it while another thread
   *    calls slot 1 or 2. */
  virtual void SetCurrentDomain(TDC_LPCWSTR domain) = 0;
  /* 3  GetServerByDomain: the first client whose service domain equals domain
   *    exactly, or NULL. The platform owns the client: never free or destroy it.
   *    Walks the clients without a lock; keep it apart from a running InitApi. */
  virtual ITetherdocServer* GetServerByDomain(TDC_LPCWSTR domain) = 0;
  /* 4  GetServerByHost: the first client created for exactly this host, or NULL. As
   *    slot 3 for ownership and threads. */
  virtual ITetherdocServer* GetServerByHost(TDC_LPCWSTR host) = 0;

  /* Slots 5 to 10 find a service host; each is one source with its own fallbacks, and
   * the host calls them in the order it wants. An out host is written only when a host
   * was found: start it at NULL, test it afterwards (a result of 0 alone doesn't mean
   * a host was found), and free it with TDC_ReleaseLPWSTR. app and version are the
   * host application's name and version ("12.1.3": only the major release counts);
   * an app holding "BrindlePDF" is the Editor, any other the Reader (slot 7 also takes
   * "Editor"). Slots 5 to 8 are serialised by one lock, held across DNS queries;
   * slots 9 and 10 take no lock. The registry and the configuration file are read
   * afresh on every call. */

  /* 5  GetRecordHostFromConfig: "env" of tpcsdk.config beside the module; else the
   *    directory's DNS record (unless DisableFindHost was found by an earlier slot 7
   *    or 8); else the host built into the module. Always 0 with a host, except -2
   *    when memory for the file ran out. */
  virtual int GetRecordHostFromConfig(TDC_LPWSTR* host) = 0;
  /* 6  GetRecordUpdateHostFromConfig: "upd" of tpcsdk.config; the DNS record only
   *    when there is no such file. No built-in fall-back: 0 with host untouched when
   *    nothing names one. */
  virtual int GetRecordUpdateHostFromConfig(TDC_LPWSTR* host) = 0;
  /* 7  GetRecordHostFromGPO: the tenant value (EnterpriseTenantDomain) of the user's
   *    product key; else the preference file ProfStore.xml, then the machine's and the
   *    user's policy (TDOC\TDOCServer). Also refreshes the DisableFindHost switch that
   *    slots 5 and 6 obey. user is not read. 0, or -2 when neither the preference
   *    file nor a policy names a host. The first call of slot 7 or 8 fixes
   *    the product, version and preference file for the life of the process. */
  virtual int GetRecordHostFromGPO(TDC_LPWSTR* host, TDC_LPCWSTR app, TDC_LPCWSTR version,
                                   TDC_LPCWSTR user) = 0;
  /* 8  GetRecordUpdateHostFromGPO: the preference file, then policy
   *    (TDOC\InternalUpdate). Refreshes DisableFindHost. 0 (with host untouched when
   *    the value is empty), or -2 when no source has the value. */
  virtual int GetRecordUpdateHostFromGPO(TDC_LPWSTR* host, TDC_LPCWSTR app,
                                         TDC_LPCWSTR version) = 0;
  /* 9  GetRecordHostFromLastDefaultLogined: the service host marked "1" among the
   *    user's signed-in services (the key ...\plugins\TDOCServer\LoginedService of
   *    app as given). user: "" for the current user, or another user's security
   *    identifier (never NULL). 0 with a host, or -2 when none is marked. */
  virtual int GetRecordHostFromLastDefaultLogined(TDC_LPWSTR* host, TDC_LPCWSTR app,
                                                  TDC_LPCWSTR version, TDC_LPCWSTR user) = 0;
  /* 10 IsEnterpriseEnv: 1 when the host in force is an organisation's own service,
   *    0 when it is the regional configuration host, when nothing names a host, or
   *    when the "Test" switch is set (registry, or "Test":"true" in tpcsdk.config).
   *    Sources: Test, the tenant value, slot 7, then tpcsdk.config and DNS. */
  virtual int IsEnterpriseEnv(TDC_LPCWSTR app, TDC_LPCWSTR version, TDC_LPCWSTR user) = 0;
  /* 11 StopAllRequest: ends every client's calls in flight; each blocked call returns
   *    with what it had. Any thread; keep it apart from a running InitApi. */
  virtual void StopAllRequest() = 0;

 protected:
  ~IPDFPlatform() = default;
};

#endif /* TPCSDK_IPDFPLATFORM_H */
