// The caching allocator of device memory behind device_alloc and device_free. A released block is
// cached under the device it came from and the stream it was released on, and serves again only
// there: stream order is the whole safety argument, and no event is needed.
#pragma once

#include "cuda_like/device.h"
#include "rocm/block_list.h"

namespace kevra {

// Gives every cached block back to HIP; blocks in use stay.
void device_drain();
PoolFigures device_pool_figures();

// Scratch for a graph that is recorded on a stream of its own, `borrower`, and replayed behind the
// work of `lender`: the borrower draws from its own list, then from the lender's, so that calls one
// after another use the same blocks. What it releases stays on its own list, where neither a drain
// nor a trim gets at it: the graph has these addresses for as long as it is replayed. At the loan's
// end they are the lender's; the replays are done by then, or the lender's next work is behind
// them. Both streams are of the current device.
class StreamLoan {
 public:
  StreamLoan(stream_t borrower, stream_t lender);
  ~StreamLoan();
  StreamLoan(const StreamLoan&) = delete;
  StreamLoan& operator=(const StreamLoan&) = delete;

 private:
  stream_t borrower_;
};

}  // namespace kevra
