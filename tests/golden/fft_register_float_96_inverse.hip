typedef long long I64;
#define TG 
#define DEV 
typedef float2 cplx;
__device__ __forceinline__ cplx cmk(float r, float i){cplx z;z.x=r;z.y=i;return z;}
__device__ __forceinline__ cplx cadd(cplx a, cplx b){return cmk(a.x+b.x, a.y+b.y);}
__device__ __forceinline__ cplx csub(cplx a, cplx b){return cmk(a.x-b.x, a.y-b.y);}
__device__ __forceinline__ cplx cmul(cplx a, cplx b){return cmk(a.x*b.x - a.y*b.y, a.x*b.y + a.y*b.x);}
typedef cplx iot;
#define INVSC ((float)(1.0 / 96))
extern "C" __global__ void __launch_bounds__(64) kevra_fft(const iot* __restrict__ x, iot* __restrict__ out, const cplx* __restrict__ tw, int nrows) {
  extern __shared__ float shbuf[];
  int tid = threadIdx.x % 8;
  I64 batch = (I64)blockIdx.x * 8 + threadIdx.x / 8;
  I64 brow = batch < nrows - 1 ? batch : nrows - 1;
  const DEV iot* xb = x + brow * 96;
  TG float* v = shbuf + (threadIdx.x / 8) * 136;
  int wb = tid * 13;
  int j0 = tid;
  iot t0 = xb[j0 + 0]; cplx u1 = cmk((float)t0.x, -(float)t0.y);
  iot t1 = xb[j0 + 8]; cplx u2 = cmk((float)t1.x, -(float)t1.y);
  iot t2 = xb[j0 + 16]; cplx u3 = cmk((float)t2.x, -(float)t2.y);
  iot t3 = xb[j0 + 24]; cplx u4 = cmk((float)t3.x, -(float)t3.y);
  iot t4 = xb[j0 + 32]; cplx u5 = cmk((float)t4.x, -(float)t4.y);
  iot t5 = xb[j0 + 40]; cplx u6 = cmk((float)t5.x, -(float)t5.y);
  iot t6 = xb[j0 + 48]; cplx u7 = cmk((float)t6.x, -(float)t6.y);
  iot t7 = xb[j0 + 56]; cplx u8 = cmk((float)t7.x, -(float)t7.y);
  iot t8 = xb[j0 + 64]; cplx u9 = cmk((float)t8.x, -(float)t8.y);
  iot t9 = xb[j0 + 72]; cplx u10 = cmk((float)t9.x, -(float)t9.y);
  iot t10 = xb[j0 + 80]; cplx u11 = cmk((float)t10.x, -(float)t10.y);
  iot t11 = xb[j0 + 88]; cplx u12 = cmk((float)t11.x, -(float)t11.y);
  // radix 12 in blocks of 96
  cplx v13 = cadd(u1, u5);
  cplx v14 = cadd(v13, u9);
  cplx v15 = cmk((float)-0.49999999999999978, (float)-0.86602540378443871);
  cplx v16 = cmul(u5, v15);
  cplx v17 = cadd(u1, v16);
  cplx v18 = cmk((float)-0.50000000000000044, (float)0.86602540378443837);
  cplx v19 = cmul(u9, v18);
  cplx v20 = cadd(v17, v19);
  cplx v21 = cmk((float)-0.50000000000000044, (float)0.86602540378443837);
  cplx v22 = cmul(u5, v21);
  cplx v23 = cadd(u1, v22);
  cplx v24 = cmk((float)-0.49999999999999978, (float)-0.86602540378443871);
  cplx v25 = cmul(u9, v24);
  cplx v26 = cadd(v23, v25);
  cplx v27 = cadd(u2, u6);
  cplx v28 = cadd(v27, u10);
  cplx v29 = cmk((float)-0.49999999999999978, (float)-0.86602540378443871);
  cplx v30 = cmul(u6, v29);
  cplx v31 = cadd(u2, v30);
  cplx v32 = cmk((float)-0.50000000000000044, (float)0.86602540378443837);
  cplx v33 = cmul(u10, v32);
  cplx v34 = cadd(v31, v33);
  cplx v35 = cmk((float)-0.50000000000000044, (float)0.86602540378443837);
  cplx v36 = cmul(u6, v35);
  cplx v37 = cadd(u2, v36);
  cplx v38 = cmk((float)-0.49999999999999978, (float)-0.86602540378443871);
  cplx v39 = cmul(u10, v38);
  cplx v40 = cadd(v37, v39);
  cplx v41 = cadd(u3, u7);
  cplx v42 = cadd(v41, u11);
  cplx v43 = cmk((float)-0.49999999999999978, (float)-0.86602540378443871);
  cplx v44 = cmul(u7, v43);
  cplx v45 = cadd(u3, v44);
  cplx v46 = cmk((float)-0.50000000000000044, (float)0.86602540378443837);
  cplx v47 = cmul(u11, v46);
  cplx v48 = cadd(v45, v47);
  cplx v49 = cmk((float)-0.50000000000000044, (float)0.86602540378443837);
  cplx v50 = cmul(u7, v49);
  cplx v51 = cadd(u3, v50);
  cplx v52 = cmk((float)-0.49999999999999978, (float)-0.86602540378443871);
  cplx v53 = cmul(u11, v52);
  cplx v54 = cadd(v51, v53);
  cplx v55 = cadd(u4, u8);
  cplx v56 = cadd(v55, u12);
  cplx v57 = cmk((float)-0.49999999999999978, (float)-0.86602540378443871);
  cplx v58 = cmul(u8, v57);
  cplx v59 = cadd(u4, v58);
  cplx v60 = cmk((float)-0.50000000000000044, (float)0.86602540378443837);
  cplx v61 = cmul(u12, v60);
  cplx v62 = cadd(v59, v61);
  cplx v63 = cmk((float)-0.50000000000000044, (float)0.86602540378443837);
  cplx v64 = cmul(u8, v63);
  cplx v65 = cadd(u4, v64);
  cplx v66 = cmk((float)-0.49999999999999978, (float)-0.86602540378443871);
  cplx v67 = cmul(u12, v66);
  cplx v68 = cadd(v65, v67);
  cplx v69 = cadd(v14, v42);
  cplx v70 = csub(v14, v42);
  cplx v71 = cmk((float)0.50000000000000011, (float)-0.8660254037844386);
  cplx v72 = cmul(v48, v71);
  cplx v73 = cadd(v20, v72);
  cplx v74 = csub(v20, v72);
  cplx v75 = cmk((float)-0.49999999999999978, (float)-0.86602540378443871);
  cplx v76 = cmul(v54, v75);
  cplx v77 = cadd(v26, v76);
  cplx v78 = csub(v26, v76);
  cplx v79 = cadd(v28, v56);
  cplx v80 = csub(v28, v56);
  cplx v81 = cmk((float)0.50000000000000011, (float)-0.8660254037844386);
  cplx v82 = cmul(v62, v81);
  cplx v83 = cadd(v34, v82);
  cplx v84 = csub(v34, v82);
  cplx v85 = cmk((float)-0.49999999999999978, (float)-0.86602540378443871);
  cplx v86 = cmul(v68, v85);
  cplx v87 = cadd(v40, v86);
  cplx v88 = csub(v40, v86);
  cplx v89 = cadd(v69, v79);
  cplx v90 = csub(v69, v79);
  cplx v91 = cmk((float)0.86602540378443871, (float)-0.49999999999999994);
  cplx v92 = cmul(v83, v91);
  cplx v93 = cadd(v73, v92);
  cplx v94 = csub(v73, v92);
  cplx v95 = cmk((float)0.50000000000000011, (float)-0.8660254037844386);
  cplx v96 = cmul(v87, v95);
  cplx v97 = cadd(v77, v96);
  cplx v98 = csub(v77, v96);
  cplx v99 = cmk((float)6.123233995736766e-17, (float)-1);
  cplx v100 = cmul(v80, v99);
  cplx v101 = cadd(v70, v100);
  cplx v102 = csub(v70, v100);
  cplx v103 = cmk((float)-0.49999999999999978, (float)-0.86602540378443871);
  cplx v104 = cmul(v84, v103);
  cplx v105 = cadd(v74, v104);
  cplx v106 = csub(v74, v104);
  cplx v107 = cmk((float)-0.86602540378443871, (float)-0.49999999999999994);
  cplx v108 = cmul(v88, v107);
  cplx v109 = cadd(v78, v108);
  cplx v110 = csub(v78, v108);
  float a111 = fmaf((float)(-0.065449846949787352), (float)(j0), (float)(1.8213079239215446e-09) * (float)(j0));
  float c112, s113; __sincosf(a111, &s113, &c112);
  cplx v114 = cmk((float)c112, (float)s113);
  cplx v115 = cmul(v93, v114);
  cplx v116 = cmul(v114, v114);
  cplx v117 = cmul(v97, v116);
  cplx v118 = cmul(v116, v114);
  cplx v119 = cmul(v101, v118);
  cplx v120 = cmul(v118, v114);
  cplx v121 = cmul(v105, v120);
  cplx v122 = cmul(v120, v114);
  cplx v123 = cmul(v109, v122);
  cplx v124 = cmul(v122, v114);
  cplx v125 = cmul(v90, v124);
  cplx v126 = cmul(v124, v114);
  cplx v127 = cmul(v94, v126);
  cplx v128 = cmul(v126, v114);
  cplx v129 = cmul(v98, v128);
  float a130 = fmaf((float)(-0.065449846949787352), (float)(9 * j0), (float)(1.8213079239215446e-09) * (float)(9 * j0));
  float c131, s132; __sincosf(a130, &s132, &c131);
  cplx v133 = cmk((float)c131, (float)s132);
  cplx v134 = cmul(v102, v133);
  cplx v135 = cmul(v133, v114);
  cplx v136 = cmul(v106, v135);
  cplx v137 = cmul(v135, v114);
  cplx v138 = cmul(v110, v137);
  int q139 = (tid + 0) % 12; int j140 = (tid + 0) / 12;
  cplx u141;
  cplx u142;
  cplx u143;
  cplx u144;
  int q145 = (tid + 8) % 12; int j146 = (tid + 8) / 12;
  cplx u147;
  cplx u148;
  cplx u149;
  cplx u150;
  int q151 = (tid + 16) % 12; int j152 = (tid + 16) / 12;
  cplx u153;
  cplx u154;
  cplx u155;
  cplx u156;
  int e157 = j140 * 1 + q139 / 12;
  int k158 = (q139 % 12) * 1;
  int e159 = j146 * 1 + q145 / 12;
  int k160 = (q145 % 12) * 1;
  int e161 = j152 * 1 + q151 / 12;
  int k162 = (q151 % 12) * 1;
  v[wb + 0] = v89.x;
  v[wb + 1] = v115.x;
  v[wb + 2] = v117.x;
  v[wb + 3] = v119.x;
  v[wb + 4] = v121.x;
  v[wb + 5] = v123.x;
  v[wb + 6] = v125.x;
  v[wb + 7] = v127.x;
  v[wb + 8] = v129.x;
  v[wb + 9] = v134.x;
  v[wb + 10] = v136.x;
  v[wb + 11] = v138.x;
  __syncthreads();
  u141.x = v[((e157 + 0) % 8) * 13 + (e157 + 0) / 8 + k158];
  u142.x = v[((e157 + 2) % 8) * 13 + (e157 + 2) / 8 + k158];
  u143.x = v[((e157 + 4) % 8) * 13 + (e157 + 4) / 8 + k158];
  u144.x = v[((e157 + 6) % 8) * 13 + (e157 + 6) / 8 + k158];
  u147.x = v[((e159 + 0) % 8) * 13 + (e159 + 0) / 8 + k160];
  u148.x = v[((e159 + 2) % 8) * 13 + (e159 + 2) / 8 + k160];
  u149.x = v[((e159 + 4) % 8) * 13 + (e159 + 4) / 8 + k160];
  u150.x = v[((e159 + 6) % 8) * 13 + (e159 + 6) / 8 + k160];
  u153.x = v[((e161 + 0) % 8) * 13 + (e161 + 0) / 8 + k162];
  u154.x = v[((e161 + 2) % 8) * 13 + (e161 + 2) / 8 + k162];
  u155.x = v[((e161 + 4) % 8) * 13 + (e161 + 4) / 8 + k162];
  u156.x = v[((e161 + 6) % 8) * 13 + (e161 + 6) / 8 + k162];
  __syncthreads();
  v[wb + 0] = v89.y;
  v[wb + 1] = v115.y;
  v[wb + 2] = v117.y;
  v[wb + 3] = v119.y;
  v[wb + 4] = v121.y;
  v[wb + 5] = v123.y;
  v[wb + 6] = v125.y;
  v[wb + 7] = v127.y;
  v[wb + 8] = v129.y;
  v[wb + 9] = v134.y;
  v[wb + 10] = v136.y;
  v[wb + 11] = v138.y;
  __syncthreads();
  u141.y = v[((e157 + 0) % 8) * 13 + (e157 + 0) / 8 + k158];
  u142.y = v[((e157 + 2) % 8) * 13 + (e157 + 2) / 8 + k158];
  u143.y = v[((e157 + 4) % 8) * 13 + (e157 + 4) / 8 + k158];
  u144.y = v[((e157 + 6) % 8) * 13 + (e157 + 6) / 8 + k158];
  u147.y = v[((e159 + 0) % 8) * 13 + (e159 + 0) / 8 + k160];
  u148.y = v[((e159 + 2) % 8) * 13 + (e159 + 2) / 8 + k160];
  u149.y = v[((e159 + 4) % 8) * 13 + (e159 + 4) / 8 + k160];
  u150.y = v[((e159 + 6) % 8) * 13 + (e159 + 6) / 8 + k160];
  u153.y = v[((e161 + 0) % 8) * 13 + (e161 + 0) / 8 + k162];
  u154.y = v[((e161 + 2) % 8) * 13 + (e161 + 2) / 8 + k162];
  u155.y = v[((e161 + 4) % 8) * 13 + (e161 + 4) / 8 + k162];
  u156.y = v[((e161 + 6) % 8) * 13 + (e161 + 6) / 8 + k162];
  __syncthreads();
  // radix 4 in blocks of 8
  cplx v163 = cadd(u141, u143);
  cplx v164 = csub(u141, u143);
  cplx v165 = cadd(u142, u144);
  cplx v166 = csub(u142, u144);
  cplx v167 = cadd(v163, v165);
  cplx v168 = csub(v163, v165);
  cplx v169 = cmk((float)6.123233995736766e-17, (float)-1);
  cplx v170 = cmul(v166, v169);
  cplx v171 = cadd(v164, v170);
  cplx v172 = csub(v164, v170);
  float a173 = fmaf((float)(-0.78539816339744828), (float)(j140), (float)(2.1855695031547384e-08) * (float)(j140));
  float c174, s175; __sincosf(a173, &s175, &c174);
  cplx v176 = cmk((float)c174, (float)s175);
  cplx v177 = cmul(v171, v176);
  cplx v178 = cmul(v176, v176);
  cplx v179 = cmul(v168, v178);
  cplx v180 = cmul(v178, v176);
  cplx v181 = cmul(v172, v180);
  cplx v182 = cadd(u147, u149);
  cplx v183 = csub(u147, u149);
  cplx v184 = cadd(u148, u150);
  cplx v185 = csub(u148, u150);
  cplx v186 = cadd(v182, v184);
  cplx v187 = csub(v182, v184);
  cplx v188 = cmk((float)6.123233995736766e-17, (float)-1);
  cplx v189 = cmul(v185, v188);
  cplx v190 = cadd(v183, v189);
  cplx v191 = csub(v183, v189);
  float a192 = fmaf((float)(-0.78539816339744828), (float)(j146), (float)(2.1855695031547384e-08) * (float)(j146));
  float c193, s194; __sincosf(a192, &s194, &c193);
  cplx v195 = cmk((float)c193, (float)s194);
  cplx v196 = cmul(v190, v195);
  cplx v197 = cmul(v195, v195);
  cplx v198 = cmul(v187, v197);
  cplx v199 = cmul(v197, v195);
  cplx v200 = cmul(v191, v199);
  cplx v201 = cadd(u153, u155);
  cplx v202 = csub(u153, u155);
  cplx v203 = cadd(u154, u156);
  cplx v204 = csub(u154, u156);
  cplx v205 = cadd(v201, v203);
  cplx v206 = csub(v201, v203);
  cplx v207 = cmk((float)6.123233995736766e-17, (float)-1);
  cplx v208 = cmul(v204, v207);
  cplx v209 = cadd(v202, v208);
  cplx v210 = csub(v202, v208);
  float a211 = fmaf((float)(-0.78539816339744828), (float)(j152), (float)(2.1855695031547384e-08) * (float)(j152));
  float c212, s213; __sincosf(a211, &s213, &c212);
  cplx v214 = cmk((float)c212, (float)s213);
  cplx v215 = cmul(v209, v214);
  cplx v216 = cmul(v214, v214);
  cplx v217 = cmul(v206, v216);
  cplx v218 = cmul(v216, v214);
  cplx v219 = cmul(v210, v218);
  int q220 = 0; { int rem = tid + 0;
    { int d = rem / 12; rem = rem % 12; q220 += d * 1; }
    { int d = rem / 1; rem = rem % 1; q220 += d * 4; }
  }
  cplx u221;
  cplx u222;
  int q223 = 0; { int rem = tid + 8;
    { int d = rem / 12; rem = rem % 12; q223 += d * 1; }
    { int d = rem / 1; rem = rem % 1; q223 += d * 4; }
  }
  cplx u224;
  cplx u225;
  int q226 = 0; { int rem = tid + 16;
    { int d = rem / 12; rem = rem % 12; q226 += d * 1; }
    { int d = rem / 1; rem = rem % 1; q226 += d * 4; }
  }
  cplx u227;
  cplx u228;
  int q229 = 0; { int rem = tid + 24;
    { int d = rem / 12; rem = rem % 12; q229 += d * 1; }
    { int d = rem / 1; rem = rem % 1; q229 += d * 4; }
  }
  cplx u230;
  cplx u231;
  int q232 = 0; { int rem = tid + 32;
    { int d = rem / 12; rem = rem % 12; q232 += d * 1; }
    { int d = rem / 1; rem = rem % 1; q232 += d * 4; }
  }
  cplx u233;
  cplx u234;
  int q235 = 0; { int rem = tid + 40;
    { int d = rem / 12; rem = rem % 12; q235 += d * 1; }
    { int d = rem / 1; rem = rem % 1; q235 += d * 4; }
  }
  cplx u236;
  cplx u237;
  int e238 = 0 * 12 + q220 / 4;
  int k239 = (q220 % 4) * 3;
  int e240 = 0 * 12 + q223 / 4;
  int k241 = (q223 % 4) * 3;
  int e242 = 0 * 12 + q226 / 4;
  int k243 = (q226 % 4) * 3;
  int e244 = 0 * 12 + q229 / 4;
  int k245 = (q229 % 4) * 3;
  int e246 = 0 * 12 + q232 / 4;
  int k247 = (q232 % 4) * 3;
  int e248 = 0 * 12 + q235 / 4;
  int k249 = (q235 % 4) * 3;
  v[wb + 0] = v167.x;
  v[wb + 3] = v177.x;
  v[wb + 6] = v179.x;
  v[wb + 9] = v181.x;
  v[wb + 1] = v186.x;
  v[wb + 4] = v196.x;
  v[wb + 7] = v198.x;
  v[wb + 10] = v200.x;
  v[wb + 2] = v205.x;
  v[wb + 5] = v215.x;
  v[wb + 8] = v217.x;
  v[wb + 11] = v219.x;
  __syncthreads();
  u221.x = v[((e238 + 0) % 8) * 13 + (e238 + 0) / 8 + k239];
  u222.x = v[((e238 + 12) % 8) * 13 + (e238 + 12) / 8 + k239];
  u224.x = v[((e240 + 0) % 8) * 13 + (e240 + 0) / 8 + k241];
  u225.x = v[((e240 + 12) % 8) * 13 + (e240 + 12) / 8 + k241];
  u227.x = v[((e242 + 0) % 8) * 13 + (e242 + 0) / 8 + k243];
  u228.x = v[((e242 + 12) % 8) * 13 + (e242 + 12) / 8 + k243];
  u230.x = v[((e244 + 0) % 8) * 13 + (e244 + 0) / 8 + k245];
  u231.x = v[((e244 + 12) % 8) * 13 + (e244 + 12) / 8 + k245];
  u233.x = v[((e246 + 0) % 8) * 13 + (e246 + 0) / 8 + k247];
  u234.x = v[((e246 + 12) % 8) * 13 + (e246 + 12) / 8 + k247];
  u236.x = v[((e248 + 0) % 8) * 13 + (e248 + 0) / 8 + k249];
  u237.x = v[((e248 + 12) % 8) * 13 + (e248 + 12) / 8 + k249];
  __syncthreads();
  v[wb + 0] = v167.y;
  v[wb + 3] = v177.y;
  v[wb + 6] = v179.y;
  v[wb + 9] = v181.y;
  v[wb + 1] = v186.y;
  v[wb + 4] = v196.y;
  v[wb + 7] = v198.y;
  v[wb + 10] = v200.y;
  v[wb + 2] = v205.y;
  v[wb + 5] = v215.y;
  v[wb + 8] = v217.y;
  v[wb + 11] = v219.y;
  __syncthreads();
  u221.y = v[((e238 + 0) % 8) * 13 + (e238 + 0) / 8 + k239];
  u222.y = v[((e238 + 12) % 8) * 13 + (e238 + 12) / 8 + k239];
  u224.y = v[((e240 + 0) % 8) * 13 + (e240 + 0) / 8 + k241];
  u225.y = v[((e240 + 12) % 8) * 13 + (e240 + 12) / 8 + k241];
  u227.y = v[((e242 + 0) % 8) * 13 + (e242 + 0) / 8 + k243];
  u228.y = v[((e242 + 12) % 8) * 13 + (e242 + 12) / 8 + k243];
  u230.y = v[((e244 + 0) % 8) * 13 + (e244 + 0) / 8 + k245];
  u231.y = v[((e244 + 12) % 8) * 13 + (e244 + 12) / 8 + k245];
  u233.y = v[((e246 + 0) % 8) * 13 + (e246 + 0) / 8 + k247];
  u234.y = v[((e246 + 12) % 8) * 13 + (e246 + 12) / 8 + k247];
  u236.y = v[((e248 + 0) % 8) * 13 + (e248 + 0) / 8 + k249];
  u237.y = v[((e248 + 12) % 8) * 13 + (e248 + 12) / 8 + k249];
  // radix 2 in blocks of 2
  cplx v250 = cadd(u221, u222);
  cplx v251 = csub(u221, u222);
  cplx v252 = cadd(u224, u225);
  cplx v253 = csub(u224, u225);
  cplx v254 = cadd(u227, u228);
  cplx v255 = csub(u227, u228);
  cplx v256 = cadd(u230, u231);
  cplx v257 = csub(u230, u231);
  cplx v258 = cadd(u233, u234);
  cplx v259 = csub(u233, u234);
  cplx v260 = cadd(u236, u237);
  cplx v261 = csub(u236, u237);
  if (batch < nrows) { out[batch * 96 + tid + 0] = make_float2((float)(v250.x * INVSC),(float)(-(v250.y * INVSC))); }
  if (batch < nrows) { out[batch * 96 + tid + 48] = make_float2((float)(v251.x * INVSC),(float)(-(v251.y * INVSC))); }
  if (batch < nrows) { out[batch * 96 + tid + 8] = make_float2((float)(v252.x * INVSC),(float)(-(v252.y * INVSC))); }
  if (batch < nrows) { out[batch * 96 + tid + 56] = make_float2((float)(v253.x * INVSC),(float)(-(v253.y * INVSC))); }
  if (batch < nrows) { out[batch * 96 + tid + 16] = make_float2((float)(v254.x * INVSC),(float)(-(v254.y * INVSC))); }
  if (batch < nrows) { out[batch * 96 + tid + 64] = make_float2((float)(v255.x * INVSC),(float)(-(v255.y * INVSC))); }
  if (batch < nrows) { out[batch * 96 + tid + 24] = make_float2((float)(v256.x * INVSC),(float)(-(v256.y * INVSC))); }
  if (batch < nrows) { out[batch * 96 + tid + 72] = make_float2((float)(v257.x * INVSC),(float)(-(v257.y * INVSC))); }
  if (batch < nrows) { out[batch * 96 + tid + 32] = make_float2((float)(v258.x * INVSC),(float)(-(v258.y * INVSC))); }
  if (batch < nrows) { out[batch * 96 + tid + 80] = make_float2((float)(v259.x * INVSC),(float)(-(v259.y * INVSC))); }
  if (batch < nrows) { out[batch * 96 + tid + 40] = make_float2((float)(v260.x * INVSC),(float)(-(v260.y * INVSC))); }
  if (batch < nrows) { out[batch * 96 + tid + 88] = make_float2((float)(v261.x * INVSC),(float)(-(v261.y * INVSC))); }
}
