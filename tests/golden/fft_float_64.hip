typedef long long I64;
#define TG 
#define DEV 
typedef float2 cplx;
__device__ __forceinline__ cplx cmk(float r, float i){cplx z;z.x=r;z.y=i;return z;}
__device__ __forceinline__ cplx cadd(cplx a, cplx b){return cmk(a.x+b.x, a.y+b.y);}
__device__ __forceinline__ cplx csub(cplx a, cplx b){return cmk(a.x-b.x, a.y-b.y);}
__device__ __forceinline__ cplx cmul(cplx a, cplx b){return cmk(a.x*b.x - a.y*b.y, a.x*b.y + a.y*b.x);}
typedef cplx iot;
#define TPF 16
#define SHP(i) (i)
extern "C" __global__ void __launch_bounds__(64) kevra_fft(const iot* __restrict__ x, iot* __restrict__ out, const cplx* __restrict__ tw, int nrows) {
  extern __shared__ cplx shbuf[];
  int tid = threadIdx.x % TPF;
  long long batch = (long long)blockIdx.x * 4 + threadIdx.x / TPF;
  long long brow = batch < nrows - 1 ? batch : nrows - 1;
  cplx* bufA = shbuf + (threadIdx.x / TPF) * 64;
  const iot* xb = x + brow * 64;
  // load the row
#if __CUDA_ARCH__ >= 800
  for (int i = tid; i < 32; i += TPF) {
  { unsigned sa = (unsigned)__cvta_generic_to_shared(&bufA[SHP(2 * i)]);
    asm volatile("cp.async.cg.shared.global [%0], [%1], 16;" :: "r"(sa), "l"(((const float4*)xb) + i)); }
  }
  asm volatile("cp.async.commit_group;");
  asm volatile("cp.async.wait_group 0;");
#else
  for (int i = tid; i < 32; i += TPF) {
  float4 t = ((const float4*)xb)[i];
  bufA[SHP(2 * i)] = cmk(t.x, t.y);
  bufA[SHP(2 * i + 1)] = cmk(t.z, t.w);
  }
#endif
  __syncthreads();
  {  // in-place radix-8 (Ls=1)
  int t0 = tid + 0;
  int ii1 = 0, jj2 = 0;
  cplx g3;
  cplx g4;
  cplx g5;
  cplx g6;
  cplx g7;
  cplx g8;
  cplx g9;
  cplx g10;
  if (t0 < 8) {
  ii1 = t0 % 1; jj2 = t0 / 1;
  g3 = bufA[SHP(t0 + 0)];
  g4 = bufA[SHP(t0 + 8)];
  g5 = bufA[SHP(t0 + 16)];
  g6 = bufA[SHP(t0 + 24)];
  g7 = bufA[SHP(t0 + 32)];
  g8 = bufA[SHP(t0 + 40)];
  g9 = bufA[SHP(t0 + 48)];
  g10 = bufA[SHP(t0 + 56)];
  }
  __syncthreads();
  if (t0 < 8) {
  cplx v11 = cadd(g3, g7);
  cplx v12 = csub(g3, g7);
  cplx v13 = cadd(g4, g8);
  cplx v14 = csub(g4, g8);
  cplx v15 = cadd(g5, g9);
  cplx v16 = csub(g5, g9);
  cplx v17 = cadd(g6, g10);
  cplx v18 = csub(g6, g10);
  cplx v19 = cadd(v11, v15);
  cplx v20 = csub(v11, v15);
  cplx v21 = cmk((float)6.123233995736766e-17, (float)-1);
  cplx v22 = cmul(v16, v21);
  cplx v23 = cadd(v12, v22);
  cplx v24 = csub(v12, v22);
  cplx v25 = cadd(v13, v17);
  cplx v26 = csub(v13, v17);
  cplx v27 = cmk((float)6.123233995736766e-17, (float)-1);
  cplx v28 = cmul(v18, v27);
  cplx v29 = cadd(v14, v28);
  cplx v30 = csub(v14, v28);
  cplx v31 = cadd(v19, v25);
  cplx v32 = csub(v19, v25);
  cplx v33 = cmk((float)0.70710678118654757, (float)-0.70710678118654746);
  cplx v34 = cmul(v29, v33);
  cplx v35 = cadd(v23, v34);
  cplx v36 = csub(v23, v34);
  cplx v37 = cmk((float)6.123233995736766e-17, (float)-1);
  cplx v38 = cmul(v26, v37);
  cplx v39 = cadd(v20, v38);
  cplx v40 = csub(v20, v38);
  cplx v41 = cmk((float)-0.70710678118654746, (float)-0.70710678118654757);
  cplx v42 = cmul(v30, v41);
  cplx v43 = cadd(v24, v42);
  cplx v44 = csub(v24, v42);
  bufA[SHP(jj2*8 + 0 + ii1)] = v31;
  bufA[SHP(jj2*8 + 1 + ii1)] = v35;
  bufA[SHP(jj2*8 + 2 + ii1)] = v39;
  bufA[SHP(jj2*8 + 3 + ii1)] = v43;
  bufA[SHP(jj2*8 + 4 + ii1)] = v32;
  bufA[SHP(jj2*8 + 5 + ii1)] = v36;
  bufA[SHP(jj2*8 + 6 + ii1)] = v40;
  bufA[SHP(jj2*8 + 7 + ii1)] = v44;
  }
  __syncthreads();
  }
  {  // in-place radix-8 (Ls=8)
  int t45 = tid + 0;
  int ii46 = 0, jj47 = 0;
  cplx g48;
  cplx g49;
  cplx g50;
  cplx g51;
  cplx g52;
  cplx g53;
  cplx g54;
  cplx g55;
  if (t45 < 8) {
  ii46 = t45 % 8; jj47 = t45 / 8;
  g48 = bufA[SHP(t45 + 0)];
  g49 = bufA[SHP(t45 + 8)];
  g50 = bufA[SHP(t45 + 16)];
  g51 = bufA[SHP(t45 + 24)];
  g52 = bufA[SHP(t45 + 32)];
  g53 = bufA[SHP(t45 + 40)];
  g54 = bufA[SHP(t45 + 48)];
  g55 = bufA[SHP(t45 + 56)];
  }
  __syncthreads();
  if (t45 < 8) {
  float a56 = fmaf((float)(-0.098174770424681035), (float)(ii46), (float)(2.731961878943423e-09) * (float)(ii46));
  float c57, s58; __sincosf(a56, &s58, &c57);
  cplx v59 = cmk((float)c57, (float)s58);
  cplx v60 = cmul(g49, v59);
  cplx v61 = cmul(v59, v59);
  cplx v62 = cmul(g50, v61);
  cplx v63 = cmul(v61, v59);
  cplx v64 = cmul(g51, v63);
  cplx v65 = cmul(v63, v59);
  cplx v66 = cmul(g52, v65);
  cplx v67 = cmul(v65, v59);
  cplx v68 = cmul(g53, v67);
  cplx v69 = cmul(v67, v59);
  cplx v70 = cmul(g54, v69);
  cplx v71 = cmul(v69, v59);
  cplx v72 = cmul(g55, v71);
  cplx v73 = cadd(g48, v66);
  cplx v74 = csub(g48, v66);
  cplx v75 = cadd(v60, v68);
  cplx v76 = csub(v60, v68);
  cplx v77 = cadd(v62, v70);
  cplx v78 = csub(v62, v70);
  cplx v79 = cadd(v64, v72);
  cplx v80 = csub(v64, v72);
  cplx v81 = cadd(v73, v77);
  cplx v82 = csub(v73, v77);
  cplx v83 = cmk((float)6.123233995736766e-17, (float)-1);
  cplx v84 = cmul(v78, v83);
  cplx v85 = cadd(v74, v84);
  cplx v86 = csub(v74, v84);
  cplx v87 = cadd(v75, v79);
  cplx v88 = csub(v75, v79);
  cplx v89 = cmk((float)6.123233995736766e-17, (float)-1);
  cplx v90 = cmul(v80, v89);
  cplx v91 = cadd(v76, v90);
  cplx v92 = csub(v76, v90);
  cplx v93 = cadd(v81, v87);
  cplx v94 = csub(v81, v87);
  cplx v95 = cmk((float)0.70710678118654757, (float)-0.70710678118654746);
  cplx v96 = cmul(v91, v95);
  cplx v97 = cadd(v85, v96);
  cplx v98 = csub(v85, v96);
  cplx v99 = cmk((float)6.123233995736766e-17, (float)-1);
  cplx v100 = cmul(v88, v99);
  cplx v101 = cadd(v82, v100);
  cplx v102 = csub(v82, v100);
  cplx v103 = cmk((float)-0.70710678118654746, (float)-0.70710678118654757);
  cplx v104 = cmul(v92, v103);
  cplx v105 = cadd(v86, v104);
  cplx v106 = csub(v86, v104);
  bufA[SHP(jj47*64 + 0 + ii46)] = v93;
  bufA[SHP(jj47*64 + 8 + ii46)] = v97;
  bufA[SHP(jj47*64 + 16 + ii46)] = v101;
  bufA[SHP(jj47*64 + 24 + ii46)] = v105;
  bufA[SHP(jj47*64 + 32 + ii46)] = v94;
  bufA[SHP(jj47*64 + 40 + ii46)] = v98;
  bufA[SHP(jj47*64 + 48 + ii46)] = v102;
  bufA[SHP(jj47*64 + 56 + ii46)] = v106;
  }
  __syncthreads();
  }
  // behind the last barrier: surplus rows leave, the others are stored
  if (batch >= nrows) return;
  for (int i = tid; i < 32; i += TPF) {
  cplx a = bufA[SHP(2 * i)]; cplx c = bufA[SHP(2 * i + 1)];
  ((float4*)(out + batch * 64))[i] = make_float4(a.x, (a.y), c.x, (c.y));
  }
}
