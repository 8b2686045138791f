#include "video/av.h"

#include <cstdarg>
#include <cstring>
#include <mutex>

#include "host/workerror.h"

namespace {

std::mutex g_mutex;
std::string g_lastMessage;

void KeepMessage(void*, int level, const char* format, va_list arguments) {
  if (level > AV_LOG_ERROR) return;
  char line[512];
  int isLineStart = 1;
  va_list copy;
  va_copy(copy, arguments);
  av_log_format_line2(nullptr, level, format, copy, line, sizeof line, &isLineStart);
  va_end(copy);
  const std::scoped_lock lock(g_mutex);
  g_lastMessage.assign(line, std::strcspn(line, "\n"));
}

}  // namespace

void CaptureLibraryMessages() { av_log_set_callback(KeepMessage); }

std::string ReasonOf(int error) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  av_strerror(error, text, sizeof text);
  const std::scoped_lock lock(g_mutex);
  std::string reason = text;
  if (!g_lastMessage.empty()) reason += " (" + g_lastMessage + ")";
  g_lastMessage.clear();
  return reason;
}

const AVCodec* FindEncoder(AVCodecID codec) {
  void* state = nullptr;
  while (const AVCodec* const candidate = av_codec_iterate(&state))
    if (candidate->id == codec && av_codec_is_encoder(candidate) != 0 &&
        (candidate->capabilities & AV_CODEC_CAP_EXPERIMENTAL) == 0)
      return candidate;
  return nullptr;
}

int Check(int result, const std::string& what) {
  if (result < 0) throw WorkError(what + ": " + ReasonOf(result));
  return result;
}
