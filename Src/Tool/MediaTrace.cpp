#include "Tool/MediaTrace.h"

namespace Qelvar::Corvane {

std::atomic<int> CMediaTrace::sm_switch{0};

}  // namespace Qelvar::Corvane
