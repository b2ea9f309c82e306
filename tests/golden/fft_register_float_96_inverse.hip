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
  float a111 = (float)(-0.065449846949787352) * (float)(j0);
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
  cplx v130 = cmul(v128, v114);
  cplx v131 = cmul(v102, v130);
  cplx v132 = cmul(v130, v114);
  cplx v133 = cmul(v106, v132);
  cplx v134 = cmul(v132, v114);
  cplx v135 = cmul(v110, v134);
  int q136 = (tid + 0) % 12; int j137 = (tid + 0) / 12;
  cplx u138;
  cplx u139;
  cplx u140;
  cplx u141;
  int q142 = (tid + 8) % 12; int j143 = (tid + 8) / 12;
  cplx u144;
  cplx u145;
  cplx u146;
  cplx u147;
  int q148 = (tid + 16) % 12; int j149 = (tid + 16) / 12;
  cplx u150;
  cplx u151;
  cplx u152;
  cplx u153;
  int e154 = j137 * 1 + q136 / 12;
  int k155 = (q136 % 12) * 1;
  int e156 = j143 * 1 + q142 / 12;
  int k157 = (q142 % 12) * 1;
  int e158 = j149 * 1 + q148 / 12;
  int k159 = (q148 % 12) * 1;
  v[wb + 0] = v89.x;
  v[wb + 1] = v115.x;
  v[wb + 2] = v117.x;
  v[wb + 3] = v119.x;
  v[wb + 4] = v121.x;
  v[wb + 5] = v123.x;
  v[wb + 6] = v125.x;
  v[wb + 7] = v127.x;
  v[wb + 8] = v129.x;
  v[wb + 9] = v131.x;
  v[wb + 10] = v133.x;
  v[wb + 11] = v135.x;
  __syncthreads();
  u138.x = v[((e154 + 0) % 8) * 13 + (e154 + 0) / 8 + k155];
  u139.x = v[((e154 + 2) % 8) * 13 + (e154 + 2) / 8 + k155];
  u140.x = v[((e154 + 4) % 8) * 13 + (e154 + 4) / 8 + k155];
  u141.x = v[((e154 + 6) % 8) * 13 + (e154 + 6) / 8 + k155];
  u144.x = v[((e156 + 0) % 8) * 13 + (e156 + 0) / 8 + k157];
  u145.x = v[((e156 + 2) % 8) * 13 + (e156 + 2) / 8 + k157];
  u146.x = v[((e156 + 4) % 8) * 13 + (e156 + 4) / 8 + k157];
  u147.x = v[((e156 + 6) % 8) * 13 + (e156 + 6) / 8 + k157];
  u150.x = v[((e158 + 0) % 8) * 13 + (e158 + 0) / 8 + k159];
  u151.x = v[((e158 + 2) % 8) * 13 + (e158 + 2) / 8 + k159];
  u152.x = v[((e158 + 4) % 8) * 13 + (e158 + 4) / 8 + k159];
  u153.x = v[((e158 + 6) % 8) * 13 + (e158 + 6) / 8 + k159];
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
  v[wb + 9] = v131.y;
  v[wb + 10] = v133.y;
  v[wb + 11] = v135.y;
  __syncthreads();
  u138.y = v[((e154 + 0) % 8) * 13 + (e154 + 0) / 8 + k155];
  u139.y = v[((e154 + 2) % 8) * 13 + (e154 + 2) / 8 + k155];
  u140.y = v[((e154 + 4) % 8) * 13 + (e154 + 4) / 8 + k155];
  u141.y = v[((e154 + 6) % 8) * 13 + (e154 + 6) / 8 + k155];
  u144.y = v[((e156 + 0) % 8) * 13 + (e156 + 0) / 8 + k157];
  u145.y = v[((e156 + 2) % 8) * 13 + (e156 + 2) / 8 + k157];
  u146.y = v[((e156 + 4) % 8) * 13 + (e156 + 4) / 8 + k157];
  u147.y = v[((e156 + 6) % 8) * 13 + (e156 + 6) / 8 + k157];
  u150.y = v[((e158 + 0) % 8) * 13 + (e158 + 0) / 8 + k159];
  u151.y = v[((e158 + 2) % 8) * 13 + (e158 + 2) / 8 + k159];
  u152.y = v[((e158 + 4) % 8) * 13 + (e158 + 4) / 8 + k159];
  u153.y = v[((e158 + 6) % 8) * 13 + (e158 + 6) / 8 + k159];
  __syncthreads();
  // radix 4 in blocks of 8
  cplx v160 = cadd(u138, u140);
  cplx v161 = csub(u138, u140);
  cplx v162 = cadd(u139, u141);
  cplx v163 = csub(u139, u141);
  cplx v164 = cadd(v160, v162);
  cplx v165 = csub(v160, v162);
  cplx v166 = cmk((float)6.123233995736766e-17, (float)-1);
  cplx v167 = cmul(v163, v166);
  cplx v168 = cadd(v161, v167);
  cplx v169 = csub(v161, v167);
  float a170 = (float)(-0.78539816339744828) * (float)(j137);
  float c171, s172; __sincosf(a170, &s172, &c171);
  cplx v173 = cmk((float)c171, (float)s172);
  cplx v174 = cmul(v168, v173);
  cplx v175 = cmul(v173, v173);
  cplx v176 = cmul(v165, v175);
  cplx v177 = cmul(v175, v173);
  cplx v178 = cmul(v169, v177);
  cplx v179 = cadd(u144, u146);
  cplx v180 = csub(u144, u146);
  cplx v181 = cadd(u145, u147);
  cplx v182 = csub(u145, u147);
  cplx v183 = cadd(v179, v181);
  cplx v184 = csub(v179, v181);
  cplx v185 = cmk((float)6.123233995736766e-17, (float)-1);
  cplx v186 = cmul(v182, v185);
  cplx v187 = cadd(v180, v186);
  cplx v188 = csub(v180, v186);
  float a189 = (float)(-0.78539816339744828) * (float)(j143);
  float c190, s191; __sincosf(a189, &s191, &c190);
  cplx v192 = cmk((float)c190, (float)s191);
  cplx v193 = cmul(v187, v192);
  cplx v194 = cmul(v192, v192);
  cplx v195 = cmul(v184, v194);
  cplx v196 = cmul(v194, v192);
  cplx v197 = cmul(v188, v196);
  cplx v198 = cadd(u150, u152);
  cplx v199 = csub(u150, u152);
  cplx v200 = cadd(u151, u153);
  cplx v201 = csub(u151, u153);
  cplx v202 = cadd(v198, v200);
  cplx v203 = csub(v198, v200);
  cplx v204 = cmk((float)6.123233995736766e-17, (float)-1);
  cplx v205 = cmul(v201, v204);
  cplx v206 = cadd(v199, v205);
  cplx v207 = csub(v199, v205);
  float a208 = (float)(-0.78539816339744828) * (float)(j149);
  float c209, s210; __sincosf(a208, &s210, &c209);
  cplx v211 = cmk((float)c209, (float)s210);
  cplx v212 = cmul(v206, v211);
  cplx v213 = cmul(v211, v211);
  cplx v214 = cmul(v203, v213);
  cplx v215 = cmul(v213, v211);
  cplx v216 = cmul(v207, v215);
  int q217 = 0; { int rem = tid + 0;
    { int d = rem / 12; rem = rem % 12; q217 += d * 1; }
    { int d = rem / 1; rem = rem % 1; q217 += d * 4; }
  }
  cplx u218;
  cplx u219;
  int q220 = 0; { int rem = tid + 8;
    { int d = rem / 12; rem = rem % 12; q220 += d * 1; }
    { int d = rem / 1; rem = rem % 1; q220 += d * 4; }
  }
  cplx u221;
  cplx u222;
  int q223 = 0; { int rem = tid + 16;
    { int d = rem / 12; rem = rem % 12; q223 += d * 1; }
    { int d = rem / 1; rem = rem % 1; q223 += d * 4; }
  }
  cplx u224;
  cplx u225;
  int q226 = 0; { int rem = tid + 24;
    { int d = rem / 12; rem = rem % 12; q226 += d * 1; }
    { int d = rem / 1; rem = rem % 1; q226 += d * 4; }
  }
  cplx u227;
  cplx u228;
  int q229 = 0; { int rem = tid + 32;
    { int d = rem / 12; rem = rem % 12; q229 += d * 1; }
    { int d = rem / 1; rem = rem % 1; q229 += d * 4; }
  }
  cplx u230;
  cplx u231;
  int q232 = 0; { int rem = tid + 40;
    { int d = rem / 12; rem = rem % 12; q232 += d * 1; }
    { int d = rem / 1; rem = rem % 1; q232 += d * 4; }
  }
  cplx u233;
  cplx u234;
  int e235 = 0 * 12 + q217 / 4;
  int k236 = (q217 % 4) * 3;
  int e237 = 0 * 12 + q220 / 4;
  int k238 = (q220 % 4) * 3;
  int e239 = 0 * 12 + q223 / 4;
  int k240 = (q223 % 4) * 3;
  int e241 = 0 * 12 + q226 / 4;
  int k242 = (q226 % 4) * 3;
  int e243 = 0 * 12 + q229 / 4;
  int k244 = (q229 % 4) * 3;
  int e245 = 0 * 12 + q232 / 4;
  int k246 = (q232 % 4) * 3;
  v[wb + 0] = v164.x;
  v[wb + 3] = v174.x;
  v[wb + 6] = v176.x;
  v[wb + 9] = v178.x;
  v[wb + 1] = v183.x;
  v[wb + 4] = v193.x;
  v[wb + 7] = v195.x;
  v[wb + 10] = v197.x;
  v[wb + 2] = v202.x;
  v[wb + 5] = v212.x;
  v[wb + 8] = v214.x;
  v[wb + 11] = v216.x;
  __syncthreads();
  u218.x = v[((e235 + 0) % 8) * 13 + (e235 + 0) / 8 + k236];
  u219.x = v[((e235 + 12) % 8) * 13 + (e235 + 12) / 8 + k236];
  u221.x = v[((e237 + 0) % 8) * 13 + (e237 + 0) / 8 + k238];
  u222.x = v[((e237 + 12) % 8) * 13 + (e237 + 12) / 8 + k238];
  u224.x = v[((e239 + 0) % 8) * 13 + (e239 + 0) / 8 + k240];
  u225.x = v[((e239 + 12) % 8) * 13 + (e239 + 12) / 8 + k240];
  u227.x = v[((e241 + 0) % 8) * 13 + (e241 + 0) / 8 + k242];
  u228.x = v[((e241 + 12) % 8) * 13 + (e241 + 12) / 8 + k242];
  u230.x = v[((e243 + 0) % 8) * 13 + (e243 + 0) / 8 + k244];
  u231.x = v[((e243 + 12) % 8) * 13 + (e243 + 12) / 8 + k244];
  u233.x = v[((e245 + 0) % 8) * 13 + (e245 + 0) / 8 + k246];
  u234.x = v[((e245 + 12) % 8) * 13 + (e245 + 12) / 8 + k246];
  __syncthreads();
  v[wb + 0] = v164.y;
  v[wb + 3] = v174.y;
  v[wb + 6] = v176.y;
  v[wb + 9] = v178.y;
  v[wb + 1] = v183.y;
  v[wb + 4] = v193.y;
  v[wb + 7] = v195.y;
  v[wb + 10] = v197.y;
  v[wb + 2] = v202.y;
  v[wb + 5] = v212.y;
  v[wb + 8] = v214.y;
  v[wb + 11] = v216.y;
  __syncthreads();
  u218.y = v[((e235 + 0) % 8) * 13 + (e235 + 0) / 8 + k236];
  u219.y = v[((e235 + 12) % 8) * 13 + (e235 + 12) / 8 + k236];
  u221.y = v[((e237 + 0) % 8) * 13 + (e237 + 0) / 8 + k238];
  u222.y = v[((e237 + 12) % 8) * 13 + (e237 + 12) / 8 + k238];
  u224.y = v[((e239 + 0) % 8) * 13 + (e239 + 0) / 8 + k240];
  u225.y = v[((e239 + 12) % 8) * 13 + (e239 + 12) / 8 + k240];
  u227.y = v[((e241 + 0) % 8) * 13 + (e241 + 0) / 8 + k242];
  u228.y = v[((e241 + 12) % 8) * 13 + (e241 + 12) / 8 + k242];
  u230.y = v[((e243 + 0) % 8) * 13 + (e243 + 0) / 8 + k244];
  u231.y = v[((e243 + 12) % 8) * 13 + (e243 + 12) / 8 + k244];
  u233.y = v[((e245 + 0) % 8) * 13 + (e245 + 0) / 8 + k246];
  u234.y = v[((e245 + 12) % 8) * 13 + (e245 + 12) / 8 + k246];
  // radix 2 in blocks of 2
  cplx v247 = cadd(u218, u219);
  cplx v248 = csub(u218, u219);
  cplx v249 = cadd(u221, u222);
  cplx v250 = csub(u221, u222);
  cplx v251 = cadd(u224, u225);
  cplx v252 = csub(u224, u225);
  cplx v253 = cadd(u227, u228);
  cplx v254 = csub(u227, u228);
  cplx v255 = cadd(u230, u231);
  cplx v256 = csub(u230, u231);
  cplx v257 = cadd(u233, u234);
  cplx v258 = csub(u233, u234);
  if (batch < nrows) { out[batch * 96 + tid + 0] = make_float2((float)(v247.x * INVSC),(float)(-(v247.y * INVSC))); }
  if (batch < nrows) { out[batch * 96 + tid + 48] = make_float2((float)(v248.x * INVSC),(float)(-(v248.y * INVSC))); }
  if (batch < nrows) { out[batch * 96 + tid + 8] = make_float2((float)(v249.x * INVSC),(float)(-(v249.y * INVSC))); }
  if (batch < nrows) { out[batch * 96 + tid + 56] = make_float2((float)(v250.x * INVSC),(float)(-(v250.y * INVSC))); }
  if (batch < nrows) { out[batch * 96 + tid + 16] = make_float2((float)(v251.x * INVSC),(float)(-(v251.y * INVSC))); }
  if (batch < nrows) { out[batch * 96 + tid + 64] = make_float2((float)(v252.x * INVSC),(float)(-(v252.y * INVSC))); }
  if (batch < nrows) { out[batch * 96 + tid + 24] = make_float2((float)(v253.x * INVSC),(float)(-(v253.y * INVSC))); }
  if (batch < nrows) { out[batch * 96 + tid + 72] = make_float2((float)(v254.x * INVSC),(float)(-(v254.y * INVSC))); }
  if (batch < nrows) { out[batch * 96 + tid + 32] = make_float2((float)(v255.x * INVSC),(float)(-(v255.y * INVSC))); }
  if (batch < nrows) { out[batch * 96 + tid + 80] = make_float2((float)(v256.x * INVSC),(float)(-(v256.y * INVSC))); }
  if (batch < nrows) { out[batch * 96 + tid + 40] = make_float2((float)(v257.x * INVSC),(float)(-(v257.y * INVSC))); }
  if (batch < nrows) { out[batch * 96 + tid + 88] = make_float2((float)(v258.x * INVSC),(float)(-(v258.y * INVSC))); }
}
