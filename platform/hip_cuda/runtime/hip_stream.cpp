// Exported: streams, events, captures and graphs. Handles are the driver's own, so that streams
// and events of other users of CUDA in the process can be given here.
#include "runtime/on_device.h"

using namespace kevra_cuda;
using namespace kevra_platform;

// An exported function that hands its arguments on to one of the driver's.
#define KEVRA_CUDA_FORWARD(name, parameters, call)                                 \
  KEVRA_HIP_EXPORT int name parameters {                                           \
    return on_device(#name, [&](const Driver& cuda) -> int { return cuda.call; }); \
  }

KEVRA_CUDA_FORWARD(hipStreamCreateWithFlags, (void** out, unsigned flags),
                   cuStreamCreate(out, flags))
KEVRA_CUDA_FORWARD(hipStreamDestroy, (void* stream), cuStreamDestroy_v2(stream))
KEVRA_CUDA_FORWARD(hipStreamSynchronize, (void* stream), cuStreamSynchronize(stream))
KEVRA_CUDA_FORWARD(hipStreamWaitEvent, (void* stream, void* event, unsigned flags),
                   cuStreamWaitEvent(stream, event, flags))

KEVRA_CUDA_FORWARD(hipEventCreate, (void** out), cuEventCreate(out, 0))
KEVRA_CUDA_FORWARD(hipEventDestroy, (void* event), cuEventDestroy_v2(event))
KEVRA_CUDA_FORWARD(hipEventRecord, (void* event, void* stream), cuEventRecord(event, stream))
KEVRA_CUDA_FORWARD(hipEventElapsedTime, (float* milliseconds, void* start, void* stop),
                   cuEventElapsedTime(milliseconds, start, stop))

KEVRA_CUDA_FORWARD(hipStreamBeginCapture, (void* stream, int mode),
                   cuStreamBeginCapture_v2(stream, mode))
KEVRA_CUDA_FORWARD(hipStreamEndCapture, (void* stream, void** graph),
                   cuStreamEndCapture(stream, graph))
KEVRA_CUDA_FORWARD(hipGraphInstantiate,
                   (void** out, void* graph, void** /*error_node*/, char* /*log*/,
                    size_t /*log_bytes*/),
                   cuGraphInstantiateWithFlags(out, graph, 0))
KEVRA_CUDA_FORWARD(hipGraphLaunch, (void* executable, void* stream),
                   cuGraphLaunch(executable, stream))
KEVRA_CUDA_FORWARD(hipGraphDestroy, (void* graph), cuGraphDestroy(graph))
KEVRA_CUDA_FORWARD(hipGraphExecDestroy, (void* executable), cuGraphExecDestroy(executable))
