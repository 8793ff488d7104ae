// The seam between the file threads and the files they work for: the core queues and
// runs requests without knowing what a file is.
#pragma once

#include "Core/Event.h"

namespace Qelvar::Corvane {

class CNetHandler;

/// A request record (SEvent from the reclaim pool) has m_key EVENT_FILE_REQUEST, the kind
/// in m_type, its argument in m_receiver and a CFileRequest_IF* in m_attach.
class CFileRequest_IF {
public:
    /// Runs the request and gives `record` back to the reclaim pool. The object may be
    /// gone when it returns.
    virtual void handle_file_request(SEvent* record) = 0;
    /// The object the request works for: the file thread's current object meanwhile.
    virtual CNetHandler* request_object() = 0;

protected:
    ~CFileRequest_IF() = default;
};

}  // namespace Qelvar::Corvane
