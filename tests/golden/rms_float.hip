typedef long long I64;
extern "C" __global__ void kevra_rms(const float* __restrict__ x, float* __restrict__ out, I64 length, I64 frames, int frame_length, int hop, int pad) {
  extern __shared__ char smem[];
  float* red = (float*)smem;
  int tid = threadIdx.x;
  I64 row = (I64)blockIdx.x;
  I64 batch = row / frames, frame = row - batch * frames;
  I64 start = frame * hop - pad;
  float sum = (float)0;
  for (int j = tid; j < frame_length; j += 256) {
    I64 q = start + j;
    if (q < 0 || q >= length) {  // reflect, the edge sample not repeated
      I64 period = 2 * (length - 1);
      q %= period; if (q < 0) q += period;
      if (q >= length) q = period - q;
    }
    float v = (float)x[batch * length + q];
    sum += v * v;
  }
  red[tid] = sum;
  __syncthreads();
  for (int s = 128; s > 0; s >>= 1) {  // halve the partial sums
    if (tid < s) red[tid] += red[tid + s];
    __syncthreads();
  }
  if (tid == 0)
    out[row] = (float)(sqrtf(red[0] / (float)frame_length));
}
