#include "daemon/kestrd_apclone.h"

#include "daemon/kestrd_enrollee.h"
#include "daemon/kestrd_registrar.h"
#include "daemon/kestrd_request_list.h"
#include "port/19051_port.h"
#include "protocol/19051_view.h"

namespace {

using Handler = int (*)(int type, u_int8_t* buf, int recvlen);

struct Route {
    RoleType_e role;
    int type;
    Handler handle;
};

// Who handles what. Anything else (a Renew, a Search at an enrollee, a
// Response at a registrar, any message at a device of unknown role) is
// dropped; a WSC message is an M2 to an enrollee and an M1 to a registrar.
constexpr Route kRoutes[] = {
    {RoleTypeEnrollee, IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_RESPONSE, msgApcloneProcessResponse},
    {RoleTypeEnrollee, IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_WSC, msgApcloneProcesM2},
    {RoleTypeRegistrar, IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_SEARCH, msgApcloneProcesSearch},
    {RoleTypeRegistrar, IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_WSC, msgApcloneProcesM1},
};

}  // namespace

int IEEE19051_MsgApcloneProcess(int type, u_int8_t* msg, int msglen) {
    if (msg == nullptr)
        return -1;
    const RoleType_e role = IEEE19051Port_GetRole();  // asked anew for every message
    for (const Route& route : kRoutes) {
        if (route.role == role && route.type == type) {
            route.handle(type, msg, msglen);
            break;
        }
    }
    return 0;
}

int msgApcloneProcessResponse(int type, u_int8_t* buf, int recvlen) {
    if (buf == nullptr)
        return 0;
    const int mid = kestr::FrameView(buf, recvlen < 0 ? 0 : static_cast<size_t>(recvlen)).mid();
    // Held from before the look-up until the handler returns: a request being
    // sent and recorded is complete before its answer is looked for, and its
    // extra data cannot be freed by its expiry meanwhile.
    kestr::RequestUseGuard use;
    if (IEEE19051_ListEmpty() == 1)
        return 0;
    IEEE19051_Info_t info{};
    if (IEEE19051_GetRequestRecordInfoByMid(type, mid, &info) != 0)
        return 0;
    if (info.responseHandler != nullptr)
        info.responseHandler(buf, &recvlen, &info);
    return 0;
}
