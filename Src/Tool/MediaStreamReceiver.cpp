#include <Corvane/MediaStreamReceiver.h>

#include <Corvane/R3.h>

#include <cinttypes>
#include <cmath>
#include <cstdint>
#include <mutex>

#include "Core/ObjectName.h"
#include "Fundel/LogDefs.h"
#include "Fundel/Time.h"
#include "Platform/Error.h"
#include "Tool/MediaStreamReceiverData.h"
#include "Tool/StreamReceiverThread.h"

/// A trace line on the telnet console while the receiver trace switch is on.
#define receiver_trace(...)                                                                  \
    do {                                                                                     \
        if (::Qelvar::Corvane::CStreamReceiverThread::GetTrace() != 0) ::R3Printf(__VA_ARGS__); \
    } while (0)

namespace Qelvar::Corvane {

namespace {

constexpr int kMaxReadsPerTick = 8;
constexpr double kMinRate = 0.0001;
// Scaled media times are kept well inside 64 bits, so the pacing sums cannot overflow.
constexpr double kMaxScaledTs = 4.0e18;

constexpr auto kSourcePath = Fundel::detail::source_path(__FILE__);

}  // namespace

CMediaStreamReceiver::CMediaStreamReceiver() : CNetHandler(0), m_data(new SMediaStreamReceiverData)
{
}

CMediaStreamReceiver::CMediaStreamReceiver(int pool) : CNetHandler(pool), m_data(new SMediaStreamReceiverData)
{
}

CMediaStreamReceiver::~CMediaStreamReceiver()
{
    delete m_data;
}

void CMediaStreamReceiver::SetReceiveMode(receiver_mode mode)
{
    if (mode != RECEIVER_STREAM_INPUT && mode != RECEIVER_PASSIVE_INPUT && mode != RECEIVER_STREAM_WRITE) {
        CVN_LOG(Fundel::LOG_WARN, "%s : SetReceiveMode failed! Invalid parameter!\n", "CMediaStreamReceiver::SetReceiveMode");
        return;
    }
    m_data->m_mode.store(mode);
}

void CMediaStreamReceiver::WaitException(long receiver_id)
{
    if (receiver_id >= 0) {
        CVN_LOG(Fundel::LOG_ERROR, "CMediaStreamReceiver::WaitException, invalid receiver id: %ld\n", receiver_id);
        return;
    }
    m_data->m_receiver_id.store(receiver_id);
}

void CMediaStreamReceiver::SetFrameRate(unsigned int)
{
    CVN_LOG(Fundel::LOG_WARN, "this:%p this interface SetFrameRate is discarded!!%s\n", static_cast<void*>(this),
            kSourcePath.c_str());
}

int CMediaStreamReceiver::StartReceive(long long fast_start_ts, float rate)
{
    // Written so that a NaN rate is refused too.
    if (fast_start_ts < 0 || !(std::fabs(static_cast<double>(rate)) >= kMinRate)) {
        CVN_LOG(Fundel::LOG_WARN, "%s : StartReceive failed! Invalid parameter, fast_start_ts:%" PRId64 ", rate:%f\n",
                "CMediaStreamReceiver::StartReceive", static_cast<std::int64_t>(fast_start_ts), static_cast<double>(rate));
        return -1;
    }
    SMediaStreamReceiverData& d = *m_data;
    std::lock_guard<Fundel::CMutex> lock(d.m_mutex);
    // A fast start is measured in media time, which another rate no longer matches.
    d.m_fast_start = rate != 1.0f ? 0 : fast_start_ts;
    d.m_rate = rate;
    d.m_first_ts = -1;
    const int state = d.m_state.load();
    if (state == RECEIVER_STOPPED) {
        d.m_state = RECEIVER_RUNNING;
        return 0;
    }
    if (state == RECEIVER_NEW) {
        const int err = CStreamReceiverThread::assign(this);
        if (err != 0) {
            CVN_LOG(Fundel::LOG_ERROR, "this:%p %s : Thread start failed. error:%d, %s\n", static_cast<void*>(this),
                    "CMediaStreamReceiver::StartReceive", err, CStreamReceiverThread::assign_error_text(err));
            return -1;
        }
        d.m_state = RECEIVER_RUNNING;
        return 0;
    }
    CVN_LOG(Fundel::LOG_WARN, "this:%p %s : this receiver already started!\n", static_cast<void*>(this),
            "CMediaStreamReceiver::StartReceive");
    return -1;
}

int CMediaStreamReceiver::StopReceive()
{
    std::lock_guard<Fundel::CMutex> lock(m_data->m_mutex);
    if (m_data->m_state.load() == RECEIVER_RUNNING) {
        m_data->m_state = RECEIVER_STOPPED;
        return 0;
    }
    CVN_LOG(Fundel::LOG_WARN, "this:%p %s : Can't stop a receiver not in running state!\n", static_cast<void*>(this),
            "CMediaStreamReceiver::StopReceive");
    return -1;
}

void CMediaStreamReceiver::Close()
{
    bool never_started = false;
    {
        std::lock_guard<Fundel::CMutex> lock(m_data->m_mutex);
        const int state = m_data->m_state.load();
        if (state == RECEIVER_CLOSED || state == RECEIVER_CLOSING) return;
        never_started = state == RECEIVER_NEW;
        m_data->m_state = RECEIVER_CLOSING;
    }
    // The final store, without the lock: the value its thread's reaper looks for. The
    // reaper may release a started receiver at once, so nothing may follow for it.
    m_data->m_state = RECEIVER_CLOSED;
    if (never_started) release();  // in no thread's list: nobody else will
}

void CMediaStreamReceiver::release()
{
    const long id = m_data->m_receiver_id.load();
    if (id != 0) Notify(id, MEDIA_RECEIVER_CLOSED, 0);
    CNetHandler::Close();
}

void CMediaStreamReceiver::release_from_thread()
{
    release();
    DecRef();  // the list's reference
}

int CMediaStreamReceiver::handle_stream_input()
{
    return 0;
}

long long CMediaStreamReceiver::handle_passive_input()
{
    return 0;
}

int CMediaStreamReceiver::handle_stream_write()
{
    return 0;
}

int CMediaStreamReceiver::do_receive()
{
    receiver_trace("%s, object:%p, class:%s handle_stream_input begin at %" PRIu64 " us\n",
                   "CMediaStreamReceiver::do_receive", static_cast<void*>(this), object_class_name(this).c_str(),
                   static_cast<std::uint64_t>(Fundel::CTime::getCurrentMicroSecond()));
    int ret;
    switch (m_data->m_mode.load()) {
    case RECEIVER_PASSIVE_INPUT: ret = passive_input(); break;
    case RECEIVER_STREAM_WRITE: ret = handle_stream_write(); break;
    default: ret = handle_stream_input(); break;
    }
    const long id = m_data->m_receiver_id.load();
    if (ret < 0 && id != 0) {
        const int err = Platform::last_error();
        char text[256];
        CVN_LOG(Fundel::LOG_WARN, "this:%p MediaStreamReceiver do_receive socket exception, error:%d, %s\n",
                static_cast<void*>(this), err, Platform::error_text(err, text, sizeof text));
        Notify(id, MEDIA_RECEIVER_EXCEPTION, 0);
    }
    receiver_trace("%s, object:%p, class:%s handle_stream_input end at %" PRIu64 " us\n",
                   "CMediaStreamReceiver::do_receive", static_cast<void*>(this), object_class_name(this).c_str(),
                   static_cast<std::uint64_t>(Fundel::CTime::getCurrentMicroSecond()));
    return ret;
}

int CMediaStreamReceiver::passive_input()
{
    SMediaStreamReceiverData& d = *m_data;
    {
        std::lock_guard<Fundel::CMutex> lock(d.m_mutex);
        if (--d.m_countdown > 0) return 0;  // media time is still ahead of real time
    }
    for (int reads = 1;; ++reads) {
        const long long t = handle_passive_input();
        const std::int64_t now = Fundel::CTime::getCurrentMicroSecond();
        std::lock_guard<Fundel::CMutex> lock(d.m_mutex);
        if (t < 1 || d.m_state.load() != RECEIVER_RUNNING) return t < 0 ? -1 : 0;
        // In double: exact for any rate of 1.0, where float would round long media times.
        double scaled = std::trunc(static_cast<double>(t) / static_cast<double>(d.m_rate));
        if (scaled > kMaxScaledTs) scaled = kMaxScaledTs;
        if (scaled < -kMaxScaledTs) scaled = -kMaxScaledTs;
        const auto ts = static_cast<std::int64_t>(scaled);
        if (d.m_first_ts == -1) {
            d.m_first_ts = ts;
            d.m_start_time = now;
        }
        d.m_pace_time = now - d.m_start_time;
        const std::int64_t period = d.m_period > 0 ? d.m_period : 1;
        // Ticks until real time catches up with media time; the fast start lets the
        // first `fast_start` µs of media through without waiting.
        d.m_countdown = static_cast<std::int32_t>((ts - d.m_first_ts + period - d.m_pace_time - d.m_fast_start) / period);
        if (d.m_countdown > 0 || reads >= kMaxReadsPerTick) return 0;
    }
}

}  // namespace Qelvar::Corvane
