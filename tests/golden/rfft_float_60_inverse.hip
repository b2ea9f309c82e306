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
#define INVSC ((float)(1.0 / 30))
extern "C" __global__ void __launch_bounds__(16) kevra_irfft(const iot* __restrict__ X, float* __restrict__ out, const cplx* __restrict__ tw, int nrows) {
  extern __shared__ cplx shbuf[];
  int tid = threadIdx.x % TPF;
  I64 batch = (I64)blockIdx.x * 1 + threadIdx.x / TPF;
  I64 brow = batch < nrows - 1 ? batch : nrows - 1;
  const DEV iot* Xb = X + brow * 31;
  TG cplx* bufA = shbuf + (threadIdx.x / TPF) * 30;
  float a0 = fmaf((float)(0.10471975511965977), (float)(tid), (float)(-2.9140926754989138e-09) * (float)(tid));
  float c1, s2; __sincosf(a0, &s2, &c1);
  cplx v3 = cmk((float)c1, (float)s2);
  cplx wc = v3;
  for (int i = tid; i < 30; i += TPF) {
  iot Xks = Xb[i]; cplx Xk = cmk((float)Xks.x, (float)Xks.y);
  iot Xms = Xb[30 - i]; cplx Xmk = cmk((float)Xms.x, (float)Xms.y);
  if (i == 0) { Xk.y = (float)0; Xmk.y = (float)0; }
  float er = (float)0.5 * (Xk.x + Xmk.x), ei = (float)0.5 * (Xk.y - Xmk.y);
  float dr = (float)0.5 * (Xk.x - Xmk.x), di = (float)0.5 * (Xk.y + Xmk.y);
  float twr = wc.x, twi = wc.y;
  float tr = -(twr * di + twi * dr), ti = twr * dr - twi * di;
  bufA[SHP(i)] = cmk(er + tr, -(ei + ti));
  cplx v4 = cmk((float)-0.10452846326765333, (float)0.9945218953682734);
  cplx v5 = cmul(wc, v4);
  wc = v5;
  }
  __syncthreads();
  {  // in-place radix-5 (Ls=1)
  int t6 = tid + 0;
  int ii7 = 0, jj8 = 0;
  cplx g9;
  cplx g10;
  cplx g11;
  cplx g12;
  cplx g13;
  if (t6 < 6) {
  ii7 = t6 % 1; jj8 = t6 / 1;
  g9 = bufA[SHP(t6 + 0)];
  g10 = bufA[SHP(t6 + 6)];
  g11 = bufA[SHP(t6 + 12)];
  g12 = bufA[SHP(t6 + 18)];
  g13 = bufA[SHP(t6 + 24)];
  }
  __syncthreads();
  if (t6 < 6) {
  cplx v14 = cadd(g9, g10);
  cplx v15 = cadd(v14, g11);
  cplx v16 = cadd(v15, g12);
  cplx v17 = cadd(v16, g13);
  cplx v18 = cmk((float)0.30901699437494745, (float)-0.95105651629515353);
  cplx v19 = cmul(g10, v18);
  cplx v20 = cadd(g9, v19);
  cplx v21 = cmk((float)-0.80901699437494734, (float)-0.58778525229247325);
  cplx v22 = cmul(g11, v21);
  cplx v23 = cadd(v20, v22);
  cplx v24 = cmk((float)-0.80901699437494756, (float)0.58778525229247303);
  cplx v25 = cmul(g12, v24);
  cplx v26 = cadd(v23, v25);
  cplx v27 = cmk((float)0.30901699437494723, (float)0.95105651629515364);
  cplx v28 = cmul(g13, v27);
  cplx v29 = cadd(v26, v28);
  cplx v30 = cmk((float)-0.80901699437494734, (float)-0.58778525229247325);
  cplx v31 = cmul(g10, v30);
  cplx v32 = cadd(g9, v31);
  cplx v33 = cmk((float)0.30901699437494723, (float)0.95105651629515364);
  cplx v34 = cmul(g11, v33);
  cplx v35 = cadd(v32, v34);
  cplx v36 = cmk((float)0.30901699437494745, (float)-0.95105651629515353);
  cplx v37 = cmul(g12, v36);
  cplx v38 = cadd(v35, v37);
  cplx v39 = cmk((float)-0.80901699437494756, (float)0.58778525229247303);
  cplx v40 = cmul(g13, v39);
  cplx v41 = cadd(v38, v40);
  cplx v42 = cmk((float)-0.80901699437494756, (float)0.58778525229247303);
  cplx v43 = cmul(g10, v42);
  cplx v44 = cadd(g9, v43);
  cplx v45 = cmk((float)0.30901699437494745, (float)-0.95105651629515353);
  cplx v46 = cmul(g11, v45);
  cplx v47 = cadd(v44, v46);
  cplx v48 = cmk((float)0.30901699437494723, (float)0.95105651629515364);
  cplx v49 = cmul(g12, v48);
  cplx v50 = cadd(v47, v49);
  cplx v51 = cmk((float)-0.80901699437494734, (float)-0.58778525229247325);
  cplx v52 = cmul(g13, v51);
  cplx v53 = cadd(v50, v52);
  cplx v54 = cmk((float)0.30901699437494723, (float)0.95105651629515364);
  cplx v55 = cmul(g10, v54);
  cplx v56 = cadd(g9, v55);
  cplx v57 = cmk((float)-0.80901699437494756, (float)0.58778525229247303);
  cplx v58 = cmul(g11, v57);
  cplx v59 = cadd(v56, v58);
  cplx v60 = cmk((float)-0.80901699437494734, (float)-0.58778525229247325);
  cplx v61 = cmul(g12, v60);
  cplx v62 = cadd(v59, v61);
  cplx v63 = cmk((float)0.30901699437494745, (float)-0.95105651629515353);
  cplx v64 = cmul(g13, v63);
  cplx v65 = cadd(v62, v64);
  bufA[SHP(jj8*5 + 0 + ii7)] = v17;
  bufA[SHP(jj8*5 + 1 + ii7)] = v29;
  bufA[SHP(jj8*5 + 2 + ii7)] = v41;
  bufA[SHP(jj8*5 + 3 + ii7)] = v53;
  bufA[SHP(jj8*5 + 4 + ii7)] = v65;
  }
  __syncthreads();
  }
  {  // in-place radix-3 (Ls=5)
  int t66 = tid + 0;
  int ii67 = 0, jj68 = 0;
  cplx g69;
  cplx g70;
  cplx g71;
  if (t66 < 10) {
  ii67 = t66 % 5; jj68 = t66 / 5;
  g69 = bufA[SHP(t66 + 0)];
  g70 = bufA[SHP(t66 + 10)];
  g71 = bufA[SHP(t66 + 20)];
  }
  __syncthreads();
  if (t66 < 10) {
  float a72 = fmaf((float)(-0.41887902047863906), (float)(ii67), (float)(1.1656370701995655e-08) * (float)(ii67));
  float c73, s74; __sincosf(a72, &s74, &c73);
  cplx v75 = cmk((float)c73, (float)s74);
  cplx v76 = cmul(g70, v75);
  cplx v77 = cmul(v75, v75);
  cplx v78 = cmul(g71, v77);
  cplx v79 = cadd(g69, v76);
  cplx v80 = cadd(v79, v78);
  cplx v81 = cmk((float)-0.49999999999999978, (float)-0.86602540378443871);
  cplx v82 = cmul(v76, v81);
  cplx v83 = cadd(g69, v82);
  cplx v84 = cmk((float)-0.50000000000000044, (float)0.86602540378443837);
  cplx v85 = cmul(v78, v84);
  cplx v86 = cadd(v83, v85);
  cplx v87 = cmk((float)-0.50000000000000044, (float)0.86602540378443837);
  cplx v88 = cmul(v76, v87);
  cplx v89 = cadd(g69, v88);
  cplx v90 = cmk((float)-0.49999999999999978, (float)-0.86602540378443871);
  cplx v91 = cmul(v78, v90);
  cplx v92 = cadd(v89, v91);
  bufA[SHP(jj68*15 + 0 + ii67)] = v80;
  bufA[SHP(jj68*15 + 5 + ii67)] = v86;
  bufA[SHP(jj68*15 + 10 + ii67)] = v92;
  }
  __syncthreads();
  }
  {  // in-place radix-2 (Ls=15)
  int t93 = tid + 0;
  int ii94 = 0, jj95 = 0;
  cplx g96;
  cplx g97;
  if (t93 < 15) {
  ii94 = t93 % 15; jj95 = t93 / 15;
  g96 = bufA[SHP(t93 + 0)];
  g97 = bufA[SHP(t93 + 15)];
  }
  __syncthreads();
  if (t93 < 15) {
  float a98 = fmaf((float)(-0.20943951023931953), (float)(ii94), (float)(5.8281853509978276e-09) * (float)(ii94));
  float c99, s100; __sincosf(a98, &s100, &c99);
  cplx v101 = cmk((float)c99, (float)s100);
  cplx v102 = cmul(g97, v101);
  cplx v103 = cadd(g96, v102);
  cplx v104 = csub(g96, v102);
  bufA[SHP(jj95*30 + 0 + ii94)] = v103;
  bufA[SHP(jj95*30 + 15 + ii94)] = v104;
  }
  __syncthreads();
  }
  // behind the last barrier: surplus rows leave, the others are stored
  if (!(batch < nrows)) return;
  for (int i = tid; i < 30; i += TPF) {
  cplx r = bufA[SHP(i)];
  out[batch * 60 + 2 * i] = (float)(r.x * INVSC);
  out[batch * 60 + 2 * i + 1] = (float)(-r.y * INVSC);
  }
}
