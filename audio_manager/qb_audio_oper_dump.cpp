// Record dumps of an engine: every field in record order, as name=value lines, to the log or to a
// status dump file.
#include <arpa/inet.h>

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <vector>

#include "am_log.h"
#include "qb_audio_oper.h"

namespace {

constexpr size_t kDumpLineSize = 768;

// One line to a file, or to the log when file is null.
void emit(FILE* file, const char* fmt, ...) __attribute__((format(printf, 2, 3)));

void emit(FILE* file, const char* fmt, ...) {
  char line[kDumpLineSize];
  va_list args;
  va_start(args, fmt);
  vsnprintf(line, sizeof(line), fmt, args);
  va_end(args);
  if (file != nullptr) {
    fputs(line, file);
    return;
  }
  const size_t len = strlen(line);
  if (len > 0 && line[len - 1] == '\n') {
    line[len - 1] = '\0';
  }
  AM_LOG_INFO("%s", line);
}

const char* text(const char* s) { return s != nullptr ? s : "(null)"; }

// The published copies, by record. Each holds the record's bytes but the stop flag, which has its
// own atomic access.
struct published_t {
  std::mutex lock;
  std::map<const qb_audio_oper_ctrl_t*, std::vector<unsigned char>> copies;
};
published_t g_published;

constexpr size_t kFlagAt = offsetof(qb_audio_oper_ctrl_t, in_aborting);
constexpr size_t kAfterFlag = kFlagAt + sizeof(std::atomic<int>);

void copy_but_flag(void* to, const void* from) {
  memcpy(to, from, kFlagAt);
  memcpy(static_cast<char*>(to) + kAfterFlag, static_cast<const char*>(from) + kAfterFlag,
         sizeof(qb_audio_oper_ctrl_t) - kAfterFlag);
}

// The record as its worker last published it, or the record itself when it never was published
// (no worker runs on it).
void published_copy(const qb_audio_oper_ctrl_t* ctrl, qb_audio_oper_ctrl_t* out) {
  {
    std::lock_guard<std::mutex> hold(g_published.lock);
    const auto it = g_published.copies.find(ctrl);
    copy_but_flag(out, it != g_published.copies.end() ? static_cast<const void*>(it->second.data())
                                                      : static_cast<const void*>(ctrl));
  }
  out->in_aborting.store(ctrl->in_aborting.load());
  // The history pointer only ever points at the record's own history.
  if (out->steer.arrChunkNum != nullptr) {
    out->steer.arrChunkNum = out->steer.latency_history;
  }
}

// Role, format, limits, modes, buffers, timing, device facts, sample geometry, position test,
// diagnostics and file options.
void dump_device_lines(const qb_audio_oper_ctrl_t* c, FILE* out) {
  emit(out,
       "command=%s,pcm_name=%s,handle=%p,hwparams format=%d,channels=%u,rate=%u,rhwparams format=%d,channels=%u,"
       "rate=%u,timelimit=%d\n",
       text(c->command), text(c->pcm_name), static_cast<void*>(c->pcm.handle), static_cast<int>(c->pcm.hwparams.format),
       c->pcm.hwparams.channels, c->pcm.hwparams.rate, static_cast<int>(c->pcm.rhwparams.format),
       c->pcm.rhwparams.channels, c->pcm.rhwparams.rate, c->dump.timelimit);
  emit(out,
       "sampleslimit=%d,quiet_mode=%d,file_type=%d,open_mode=%d,stream=%d,mmap_flag=%d,interleaved=%d,nonblock=%d\n",
       c->dump.sampleslimit, c->pcm.quiet_mode, c->dump.file_type, c->pcm.open_mode, static_cast<int>(c->pcm.stream),
       c->pcm.mmap_flag, c->pcm.interleaved, c->pcm.nonblock);
  emit(out, "in_aborting=%d,audiobuf=%p,audiobuf_datalen=%u,net_audiobuf=%p\n", c->in_aborting.load(),
       static_cast<void*>(c->audiobuf), c->audiobuf_datalen, static_cast<void*>(c->net_audiobuf));
  emit(out,
       "chunk_size=%lu,period_time=%u,buffer_time=%u,max_buffer_time=%u,period_frames=%lu,buffer_frames=%lu,"
       "avail_min=%d,start_delay=%d,stop_delay=%d\n",
       c->pcm.chunk_size, c->pcm.period_time, c->pcm.buffer_time, c->pcm.max_buffer_time, c->pcm.period_frames,
       c->pcm.buffer_frames, c->pcm.avail_min, c->pcm.start_delay, c->pcm.stop_delay);
  emit(out, "monotonic=%d,interactive=%d,can_pause=%d,fatal_errors=%d,verbose=%d,vumeter=%d,buffer_pos=%d\n",
       c->pcm.monotonic, c->dump.interactive, c->pcm.can_pause, c->pcm.fatal_errors, c->pcm.verbose, c->dump.vumeter,
       c->dump.buffer_pos);
  emit(out, "significant_bits_per_sample=%zu,bits_per_sample=%zu,bits_per_frame=%zu,chunk_bytes=%zu\n",
       c->pcm.significant_bits_per_sample, c->pcm.bits_per_sample, c->pcm.bits_per_frame, c->pcm.chunk_bytes);
  emit(out, "test_position=%d,test_coef=%d,test_nowait=%d,log=%p\n", c->pcm.test_position, c->pcm.test_coef,
       c->pcm.test_nowait, static_cast<void*>(c->pcm.log));
  emit(out,
       "max_file_size=%lld,max_file_time=%d,use_strftime=%d,recycle_capture_file=%d,term_c_lflag=%d,"
       "dump_hw_params=%d,fd=%d,pbrec_count=%lld,fdcount=%d,vocmajor=%d,vocminor=%d\n",
       c->dump.max_file_size, c->dump.max_file_time, c->dump.use_strftime, c->dump.recycle_capture_file,
       c->dump.term_c_lflag, c->pcm.dump_hw_params, c->dump.fd, c->dump.pbrec_count, c->dump.fdcount, c->dump.vocmajor,
       c->dump.vocminor);
}

// Network, stream identity, process file and the transport header.
void dump_network_lines(const qb_audio_oper_ctrl_t* c, FILE* out) {
  char svr[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &c->net.svr_addr.sin_addr, svr, sizeof svr);
  emit(out, "audio_net_addr=%s,audio_tx=%d,tx_fd=%d,rx_fd=%d,svr_addr=%s:%u,net_port=%d,audio_group_ip=%d\n",
       text(c->net.audio_net_addr), c->net.audio_tx, c->net.tx_fd, c->net.rx_fd, svr,
       static_cast<unsigned>(ntohs(c->net.svr_addr.sin_port)), c->net.net_port, c->net.audio_group_ip);
  emit(out, "file_param=%d,file_param_num=%d,pidfile_name=%s,pidf=%d,pidfile_written=%d,channel_map=%p,hw_map=%p\n",
       c->dump.file_param, c->file_param_num, text(c->dump.pidfile_name), c->dump.pidf, c->dump.pidfile_written,
       c->dump.channel_map, static_cast<void*>(c->dump.hw_map));
  const audio_transport_head_t& h = c->net.audio_info_head;
  emit(out,
       "Magic=0x%x,From=%u,Cfg_Change_Number=0x%x,Packet_Size=%u,cts=%u,HDCP2_Encrypted=%u,"
       "Input_Controller=[%02x,%02x,%02x,%02x,%02x,%02x,%02x,%02x],Audio_On=%u,"
       "Sample_Frequency=%u,Channels=%u,Sample_Size=%u,IO_In_Use=%u,Enable_Upstream=%u,Down_Sampling=%u,"
       "Mode_16bits=%u,Audio_Type=%u,SPDIF=%u\n",
       h.Magic, h.From, h.Cfg_Change_Number, h.Packet_Size, h.cts, h.HDCP2_Encrypted, h.Input_Controller[0],
       h.Input_Controller[1], h.Input_Controller[2], h.Input_Controller[3], h.Input_Controller[4],
       h.Input_Controller[5], h.Input_Controller[6], h.Input_Controller[7], h.Audio_On, h.Sample_Frequency, h.Channels,
       h.Sample_Size, h.IO_In_Use, h.Enable_Upstream, h.Down_Sampling, h.Mode_16bits, h.Audio_Type, h.SPDIF);
  emit(out,
       "Audio_Info_Frame=[%02x,%02x,%02x,%02x,%02x],IEC60958_Channel_Stats=[%02x,%02x,%02x,%02x,%02x],"
       "Rolling_Sample_Data_Size_Total=%u\n",
       h.Audio_Info_Frame[0], h.Audio_Info_Frame[1], h.Audio_Info_Frame[2], h.Audio_Info_Frame[3],
       h.Audio_Info_Frame[4], h.IEC60958_Channel_Stats[0], h.IEC60958_Channel_Stats[1], h.IEC60958_Channel_Stats[2],
       h.IEC60958_Channel_Stats[3], h.IEC60958_Channel_Stats[4], h.Rolling_Sample_Data_Size_Total);
}

// Position statistics, lifecycle, clock steering with the latency history, ring, packetising and
// timestamps.
void dump_statistics_lines(const qb_audio_oper_ctrl_t* c, const void* mutex_at, FILE* out) {
  emit(out,
       "counter=%ld,tmr=%ld,now=%ld,availsum=%.1f,delaysum=%.1f,samples=%.1f,maxavail=%ld,maxdelay=%ld,"
       "minavail=%ld,mindelay=%ld,badavail=%ld,baddelay=%ld\n",
       c->dump.counter, static_cast<long>(c->dump.tmr), static_cast<long>(c->dump.now),
       static_cast<double>(c->dump.availsum), static_cast<double>(c->dump.delaysum),
       static_cast<double>(c->dump.samples), c->dump.maxavail, c->dump.maxdelay, c->dump.minavail, c->dump.mindelay,
       c->dump.badavail, c->dump.baddelay);
  emit(out, "init=%d,runtime=%ld,read_count=%llu\n", c->init, c->runtime,
       static_cast<unsigned long long>(c->dump.read_count));
  emit(out,
       "totalIOLatency=%ld,availFrmInRingBuf=%ld,maxFrmNum=%d,minFrmNum=%d,incStartNum=%d,incStopNum=%d,"
       "decStartNum=%d,decStopNum=%d\n",
       c->dump.totalIOLatency, c->dump.availFrmInRingBuf, c->dump.maxFrmNum, c->dump.minFrmNum, c->steer.incStartNum,
       c->steer.incStopNum, c->steer.decStartNum, c->steer.decStopNum);
  emit(out,
       "mutexLatency=%p,sumLatency=%llu,latencyCnt=%llu,clifd=%d,mclkState=%s,lastAdjustAvg=%llu,lastAdjustCnt=%llu,"
       "adjustWaitCnt=%llu,oneSecondCnt=%llu\n",
       mutex_at, static_cast<unsigned long long>(c->steer.sumLatency),
       static_cast<unsigned long long>(c->steer.latencyCnt), c->steer.clifd, get_mclk_status(c->steer.mclkState),
       static_cast<unsigned long long>(c->steer.lastAdjustAvg), static_cast<unsigned long long>(c->steer.lastAdjustCnt),
       static_cast<unsigned long long>(c->dump.adjustWaitCnt), static_cast<unsigned long long>(c->dump.oneSecondCnt));
  const size_t* history = c->steer.arrChunkNum;
  if (history != nullptr) {
    const size_t shown =
        c->steer.latencyCnt < QB_AUDIO_LATENCY_HISTORY ? c->steer.latencyCnt : QB_AUDIO_LATENCY_HISTORY;
    for (size_t i = 0; i < shown; ++i) {
      emit(out, "arrChunkNum[%zu]=%zu\n", i, history[i]);
    }
  }
  emit(out, "pAudBuf=%p,asyncStart=%d,asyncStartNum=%d,ahandler=%p,startRecv=%d,syncSend=%d\n",
       static_cast<void*>(c->pAudBuf), c->dump.asyncStart, c->dump.asyncStartNum, static_cast<void*>(c->dump.ahandler),
       c->dump.startRecv, c->dump.syncSend);
  emit(out, "rollingSampleDataSizeTotal=%u,pktDelayMicrosecond=%d,pktSize=%d\n", c->loss.rollingSampleDataSizeTotal,
       c->dump.pktDelayMicrosecond, c->net.pktSize);
  emit(out, "tsStartCapture=%ld.%09ld,chunkCountCapture=%u,tsStartPlay=%ld.%09ld,chunkCountPlay=%u\n",
       static_cast<long>(c->loss.tsStartCapture.tv_sec), c->loss.tsStartCapture.tv_nsec, c->loss.chunkCountCapture,
       static_cast<long>(c->loss.tsStartPlay.tv_sec), c->loss.tsStartPlay.tv_nsec, c->loss.chunkCountPlay);
}

// Every field in record order; mutex_at is the address shown for the record's mutex.
void dump_lines(const qb_audio_oper_ctrl_t* c, const void* mutex_at, FILE* out) {
  dump_device_lines(c, out);
  dump_network_lines(c, out);
  dump_statistics_lines(c, mutex_at, out);
}

}  // namespace

void dump_audio_ctrl(qb_audio_oper_ctrl_t* ctrl) {
  if (ctrl == nullptr) {
    return;
  }
  AM_LOG_INFO("dump audio ctrl begin");
  dump_lines(ctrl, &ctrl->dump.mutexLatency, nullptr);
}

void dump_audio_ctrl1(qb_audio_oper_ctrl_t* ctrl, FILE* file) {
  if (ctrl == nullptr || file == nullptr) {
    return;
  }
  qb_audio_oper_ctrl_t copy;
  published_copy(ctrl, &copy);
  dump_lines(&copy, &ctrl->dump.mutexLatency, file);
}

void qb_audio_oper_publish(const qb_audio_oper_ctrl_t* ctrl) {
  if (ctrl == nullptr) {
    return;
  }
  std::lock_guard<std::mutex> hold(g_published.lock);
  std::vector<unsigned char>& bytes = g_published.copies[ctrl];
  bytes.resize(sizeof(qb_audio_oper_ctrl_t));
  copy_but_flag(bytes.data(), ctrl);
}
