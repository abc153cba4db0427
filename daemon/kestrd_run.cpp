#define KESTR_REPORT_MODULE "kestrd_apclone"

#include "daemon/kestrd_run.h"

#include "daemon/kestrd_band.h"
#include "port/19051_port.h"
#include "port/common/report.h"

kestr::RunState kestr::run_state;

void kestr::RunState::end(int state) {
    {
        // Stored under the lock, so a wait that has just found the run going
        // on is already waiting when the news comes.
        std::lock_guard<std::mutex> hold(lock_);
        process_completed.store(state);
    }
    ended_.notify_all();
}

bool kestr::RunState::wait_for_end(std::chrono::milliseconds bound) {
    std::unique_lock<std::mutex> hold(lock_);
    return ended_.wait_for(hold, bound, [this] { return process_completed.load() != 0; });
}

void setProcessState(int state) {
    kestr::run_state.end(state);
}

void releaseRequestRecord(IEEE19051_Info_t* info) {
    if (info == nullptr || info->extraDataType != RequestExtraDataType_M1 ||
        info->extraData == nullptr)
        return;
    kestr::release_extra(info->mid);
    info->extraData = nullptr;
}

int requestTimeout(void* requestInfo) {
    return requestInfo == nullptr
               ? 0
               : kestr::requestTimeout(*static_cast<IEEE19051_Info_t*>(requestInfo));
}

int kestr::requestTimeout(const IEEE19051_Info_t& request) {
    IEEE19051_Info_t info = request;
    const bool search = info.msgType == IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_SEARCH;
    const bool m1 = info.msgType == IEEE1905_MSG_TYPE_AP_AUTOCONFIGURATION_WSC;

    // Every expiry of a Search marks its band searched, answered or not.
    if (search)
        IEEE19051Port_SetDone(Band::from_ieee1905(info.freqBand).is5G(), 1);
    releaseRequestRecord(&info);
    IEEE19051_DelRequestRecordByMid(info.mid);

    if (search) {
        if (run_state.receive_response.load() == 0) {
            KESTR_ERR("exit:send search, but no response\n");
            setProcessState(1);
        } else if (run_state.m1_recorded.load() == 0) {
            // Responses came, but none led to a recorded M1: no request is
            // left whose expiry would end the run.
            KESTR_ERR("exit:no registration started after search\n");
            setProcessState(1);
        }
    } else if (m1) {
        if (run_state.M2_decrypt_success.load() == 1) {
            KESTR_INFO("exit:processing_completed\n");
            setProcessState(2);
        } else {
            KESTR_ERR("exit:send m1 time out\n");
            setProcessState(1);
        }
    }
    return 0;
}
