// Log and trace lines of the media buffer and its senders. Both classes log under one
// source path, the one their lines have always carried.
#pragma once

#include <Corvane/R3.h>

#include "Fundel/LogDefs.h"
#include "Tool/MediaTrace.h"

#define MEDIA_LOG(level, ...) FUNDEL_LOG_AT("Corvane", ".\\Src\\Tool\\MediaStreamSender", level, __VA_ARGS__)

/// A trace line on the telnet console while the media trace switch is on.
#define media_trace(...)                                                        \
    do {                                                                        \
        if (::Qelvar::Corvane::CMediaTrace::Get() != 0) ::R3Printf(__VA_ARGS__); \
    } while (0)
