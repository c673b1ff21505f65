#include <cmath>

#include "ctf_tilt/ctf_tilt.h"
#include "cuda_general/report.h"

void get_tilt_local_def_one(CTF_INFO& out, int x, int y, const CTF_INFO& base, int nx, int ny, float apix,
                            float axis, float tilt) {
  const float t = std::tan(tilt * (float)(M_PI / 180.0));
  if (!std::isfinite(t) || std::fabs(std::cos((double)tilt * M_PI / 180.0)) < 1e-6)
    PK_FATAL("tilt angle %g degrees: the specimen is edge-on and has no defocus gradient to apply\n", tilt);
  const double dx = x - (nx - 1) / 2.0, dy = y - (ny - 1) / 2.0;
  const double ra = axis * M_PI / 180.0;
  const double d = dy * std::cos(ra) - dx * std::sin(ra);
  const float delta = (float)(apix * d * t);
  out = base;
  out.defU = base.defU + delta;
  out.defV = base.defV + delta;
}

void get_tilt_local_defs(CTF_INFO* out, const int2* pos, int n, const CTF_INFO& base, int nx, int ny, float apix,
                         float axis, float tilt) {
  for (int i = 0; i < n; i++) get_tilt_local_def_one(out[i], pos[i].x, pos[i].y, base, nx, ny, apix, axis, tilt);
}

void print_tilt_local_defs(FILE* fp, const CTF_INFO* d, int n, const int2* pos) {
  if (pos)
    fprintf(fp, "         X         Y        kV        Cs        AC        P           U           V         A         B         ");
  else
    fprintf(fp, "        kV        Cs        AC        P           U           V         A         B         ");
  for (int i = 0; i < n; i++) {
    if (pos) fprintf(fp, "%10d%10d", pos[i].x, pos[i].y);
    fprintf(fp, "%10.2f%10.2f%10.3f%10.2f%12.2f%12.2f%10.2f%10.2f\n", d[i].kv, d[i].cs, d[i].ac, d[i].ps, d[i].defU,
            d[i].defV, d[i].defA, d[i].bfac);
  }
}
