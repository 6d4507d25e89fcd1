// The polling round and the polling configuration.
//
// NOT DONE YET: the round's request, the reply's decoding and the delivery to the
// host's callbacks, and the configuration call, come in a later change. Until then a
// round logs its parameter list and sends nothing, and the configuration slot fails.
#include "platform/diagnostic_log.h"
#include "tpcsdk/tpcsdk.h"
#include "web_service/tetherdoc_server.h"

namespace tpcsdk {

void TetherdocServer::Internet_Polling(const char* lpcsParameterList) {
  if (m_pLog)
    m_pLog->Write("Internet_Polling, lpcsParameterList:%s",
                  lpcsParameterList ? lpcsParameterList : "");
}

// A round makes no request yet, so there is nothing to end.
void TetherdocServer::StopPollingRound() {}

int TetherdocServer::Internet_SetPollingConfig(const char*, int32_t) { return TDC_HRESULT_FAILED; }

}  // namespace tpcsdk
