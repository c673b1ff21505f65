// Host stand-in for cuFFT's 2D single-precision real transforms, on FFTW.
//
// A cuFFT plan serves any buffers, in place or out of place; an FFTW plan is tied to one
// placement and one alignment. So a handle keeps the size and type and makes the FFTW plan
// for each placement and alignment it meets on first use, then executes it through FFTW's
// new-array interface.
//
// A batched plan (cufftPlanMany over contiguous images) runs its members side by side, one per
// OpenMP thread, each through a single-threaded FFTW plan: two transforms on two cores keep
// both busy with far fewer stalls than one transform split over them. Every member is the
// same single-threaded transform, so a member's result does not depend on the thread count.
//
// Plans are measured once per machine and kept in a wisdom file; every later plan of the same
// transform, in this process or any other that shares the file, is read from it. So the same
// build gives the same bytes on every run that finds the file, whoever measured first. The file
// is PICKORA_FFTW_WISDOM when that names one, else pickora/fftw.wisdom under the user's cache
// folder ($XDG_CACHE_HOME, or ~/.cache). PICKORA_FFTW_WISDOM=none turns measuring off: plans
// are then FFTW's estimate, which depends on nothing but the build. A file that cannot be
// written is still read, but a transform it lacks gets an estimated plan rather than one chosen
// by a timing that nobody would see again.
#include "host_cufft.h"

#include <fcntl.h>
#include <fftw3.h>
#include <omp.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <vector>

namespace {

static_assert(sizeof(fftwf_complex) == sizeof(float2), "fftwf_complex and float2 must share a layout");

// FFTW's planner is not thread safe; every plan is made and destroyed under this lock.
std::mutex& planner_lock() {
  static std::mutex lock;
  return lock;
}

void init_fftw_threads_once() {
  static std::once_flag once;
  std::call_once(once, [] { fftwf_init_threads(); });
}

struct HostPlan {
  int rows = 0;  // slow dimension
  int cols = 0;  // fast dimension, in real samples
  cufftType type = CUFFT_R2C;
  int batch = 1;  // images transformed by one execution, contiguous
  fftwf_plan variants[2][2] = {{nullptr, nullptr}, {nullptr, nullptr}};  // [in place][unaligned]
};

// Never destroyed: a run that ends with exit() while plans are alive keeps them reachable,
// rather than dropping the table and leaving FFTW's memory without an owner.
std::map<cufftHandle, HostPlan>& plans() {
  static auto* table = new std::map<cufftHandle, HostPlan>();
  return *table;
}
cufftHandle g_next_handle = 1;

// Read at every new plan, which is rare, so that the setting can change within a process.
// Empty when plans are to be estimated.
std::string wisdom_file() {
  const char* v = std::getenv("PICKORA_FFTW_WISDOM");
  if (v != nullptr && *v != '\0') return std::strcmp(v, "none") == 0 ? std::string() : std::string(v);
  const char* xdg = std::getenv("XDG_CACHE_HOME");
  const char* home = std::getenv("HOME");
  std::string path;
  if (xdg != nullptr && *xdg == '/')
    path = xdg;
  else if (home != nullptr && *home == '/')
    path = std::string(home) + "/.cache";
  else
    return path;
  // A folder that cannot be made leaves the lock unopened below: plans are then estimated.
  (void)mkdir(path.c_str(), 0755);
  path += "/pickora";
  (void)mkdir(path.c_str(), 0755);
  return path + "/fftw.wisdom";
}

// Holds an exclusive lock on FILE.lock, so that processes sharing the wisdom measure each
// transform once and then all read the same plan. No lock means an unwritable folder.
class WisdomLock {
 public:
  explicit WisdomLock(const std::string& file) {
    fd_ = open((file + ".lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (fd_ >= 0 && flock(fd_, LOCK_EX) != 0) {
      close(fd_);
      fd_ = -1;
    }
  }
  bool held() const { return fd_ >= 0; }
  ~WisdomLock() {
    if (fd_ >= 0) close(fd_);  // closing releases the lock
  }
  WisdomLock(const WisdomLock&) = delete;
  WisdomLock& operator=(const WisdomLock&) = delete;

 private:
  int fd_ = -1;
};

// One line on standard error the first time, nothing after.
void warn_once(bool* warned, const char* format, const std::string& file) {
  if (!*warned) std::fprintf(stderr, format, file.c_str());
  *warned = true;
}

// Writes through a new file and a rename, so a reader never sees half a file.
void save_wisdom(const std::string& file) {
  const std::string tmp = file + ".tmp" + std::to_string(getpid());
  if (fftwf_export_wisdom_to_filename(tmp.c_str()) != 0 && std::rename(tmp.c_str(), file.c_str()) == 0) return;
  std::remove(tmp.c_str());
  static bool warned = false;
  warn_once(&warned, "pickora: cannot write the FFT wisdom file %s; plans are measured again next run\n", file);
}

fftwf_plan plan_fftw(const HostPlan& p, float* r, fftwf_complex* c, unsigned flags) {
  fftwf_plan_with_nthreads(p.batch > 1 ? 1 : omp_get_max_threads());
  return p.type == CUFFT_R2C ? fftwf_plan_dft_r2c_2d(p.rows, p.cols, r, c, flags)
                             : fftwf_plan_dft_c2r_2d(p.rows, p.cols, c, r, flags);
}

// The plan that the wisdom file holds or, when the file is ours to write, one measured now and
// saved there; null when neither (the caller then estimates). r and c are the planner's scratch.
fftwf_plan plan_from_wisdom(const HostPlan& p, float* r, fftwf_complex* c, std::size_t real, std::size_t half,
                            unsigned alignment, const std::string& file) {
  WisdomLock lock(file);
  // A file that is there but holds no wisdom is someone else's: it is never written over.
  const bool absent = access(file.c_str(), F_OK) != 0;
  const bool ours = absent || fftwf_import_wisdom_from_filename(file.c_str()) != 0;
  if (!ours) {
    static bool warned = false;
    warn_once(&warned, "pickora: %s is not an FFT wisdom file; it is left as it is\n", file);
    return nullptr;
  }
  if (!lock.held()) return plan_fftw(p, r, c, FFTW_MEASURE | FFTW_WISDOM_ONLY | alignment);
  // Measured on touched pages: first-touch faults would make the first candidates look slow.
  std::memset(r, 0, sizeof(float) * real);
  if (static_cast<void*>(c) != static_cast<void*>(r)) std::memset(c, 0, sizeof(fftwf_complex) * half);
  fftwf_plan plan = plan_fftw(p, r, c, FFTW_MEASURE | alignment);
  save_wisdom(file);
  return plan;
}

fftwf_plan make_variant(const HostPlan& p, bool in_place, bool unaligned) {
  const std::size_t half = static_cast<std::size_t>(p.rows) * (p.cols / 2 + 1);
  const std::size_t real = in_place ? 2 * half : static_cast<std::size_t>(p.rows) * p.cols;
  float* r = fftwf_alloc_real(real);
  fftwf_complex* c = in_place ? reinterpret_cast<fftwf_complex*>(r) : fftwf_alloc_complex(half);
  if (r == nullptr || c == nullptr) {
    fftwf_free(r);
    if (!in_place) fftwf_free(c);
    return nullptr;
  }
  // The planner runs on scratch arrays of its own: measuring overwrites them.
  const unsigned alignment = unaligned ? FFTW_UNALIGNED : 0u;
  fftwf_plan plan = nullptr;
  const std::string file = wisdom_file();
  if (!file.empty()) plan = plan_from_wisdom(p, r, c, real, half, alignment, file);
  if (plan == nullptr) plan = plan_fftw(p, r, c, FFTW_ESTIMATE | alignment);
  fftwf_free(r);
  if (!in_place) fftwf_free(c);
  return plan;
}

// Finds the handle and the FFTW plan for these buffers, making it on first use; a copy of the
// handle's sizes too, when asked for.
cufftResult variant_for(cufftHandle handle, cufftType type, const void* in, const void* out, fftwf_plan* result,
                        HostPlan* shape = nullptr) {
  std::lock_guard<std::mutex> guard(planner_lock());
  auto it = plans().find(handle);
  if (it == plans().end()) return CUFFT_INVALID_PLAN;
  HostPlan& p = it->second;
  if (p.type != type) return CUFFT_INVALID_VALUE;
  if (in == nullptr || out == nullptr) return CUFFT_INVALID_VALUE;
  if (shape != nullptr) *shape = HostPlan{p.rows, p.cols, p.type, p.batch};
  const bool in_place = in == out;
  const bool unaligned = fftwf_alignment_of(const_cast<float*>(static_cast<const float*>(in))) != 0 ||
                         fftwf_alignment_of(const_cast<float*>(static_cast<const float*>(out))) != 0;
  fftwf_plan& slot = p.variants[in_place][unaligned];
  if (slot == nullptr) slot = make_variant(p, in_place, unaligned);
  if (slot == nullptr) return CUFFT_ALLOC_FAILED;
  *result = slot;
  return CUFFT_SUCCESS;
}

cufftResult new_plan(cufftHandle* plan, int nx, int ny, cufftType type, int batch) {
  if (plan == nullptr) return CUFFT_INVALID_VALUE;
  if (type != CUFFT_R2C && type != CUFFT_C2R) return CUFFT_INVALID_TYPE;
  if (nx < 1 || ny < 1 || batch < 1) return CUFFT_INVALID_SIZE;
  init_fftw_threads_once();
  std::lock_guard<std::mutex> guard(planner_lock());
  HostPlan p;
  p.rows = nx;
  p.cols = ny;
  p.type = type;
  p.batch = batch;
  *plan = g_next_handle++;
  plans()[*plan] = p;
  return CUFFT_SUCCESS;
}

// Runs one transform per image of the plan's batch, each after the other in memory: half spectra
// of rows x (cols / 2 + 1) complex values, real images of rows x cols floats (in place, the rows
// padded to 2 * (cols / 2 + 1) floats, as in cuFFT). Members whose alignment differs get the
// plan of their own alignment. `real_in` says which side the input is.
template <class In, class Out, class Run>
cufftResult execute_batch(cufftHandle plan, cufftType type, In* in, Out* out, bool real_in, Run run) {
  fftwf_plan first = nullptr;
  HostPlan shape;
  cufftResult r = variant_for(plan, type, in, out, &first, &shape);
  const int batch = shape.batch;
  if (r != CUFFT_SUCCESS || batch == 1) {
    if (r == CUFFT_SUCCESS) run(first, in, out);
    return r;
  }
  const std::size_t half = static_cast<std::size_t>(shape.rows) * (shape.cols / 2 + 1);
  const bool in_place = static_cast<const void*>(in) == static_cast<const void*>(out);
  const std::size_t real = in_place ? 2 * half : static_cast<std::size_t>(shape.rows) * shape.cols;
  const std::size_t in_step = real_in ? real : half, out_step = real_in ? half : real;
  std::vector<fftwf_plan> members(static_cast<std::size_t>(batch), nullptr);
  for (int k = 0; k < batch && r == CUFFT_SUCCESS; ++k)
    r = variant_for(plan, type, in + k * in_step, out + k * out_step, &members[static_cast<std::size_t>(k)]);
  if (r != CUFFT_SUCCESS) return r;
#pragma omp parallel for schedule(static)
  for (int k = 0; k < batch; ++k) run(members[static_cast<std::size_t>(k)], in + k * in_step, out + k * out_step);
  return CUFFT_SUCCESS;
}

}  // namespace

cufftResult cufftPlan2d(cufftHandle* plan, int nx, int ny, cufftType type) {
  return new_plan(plan, nx, ny, type, 1);
}

// The basic layout only (no embedding), as this program uses it: with null embeddings cuFFT
// ignores the strides and distances too.
cufftResult cufftPlanMany(cufftHandle* plan, int rank, int* n, int* inembed, int istride, int idist, int* onembed,
                          int ostride, int odist, cufftType type, int batch) {
  if (rank != 2 || n == nullptr || inembed != nullptr || onembed != nullptr) return CUFFT_INVALID_VALUE;
  return new_plan(plan, n[0], n[1], type, batch);
}

cufftResult cufftExecR2C(cufftHandle plan, cufftReal* in, cufftComplex* out) {
  return execute_batch(plan, CUFFT_R2C, in, reinterpret_cast<fftwf_complex*>(out), true,
                       [](fftwf_plan p, float* i, fftwf_complex* o) { fftwf_execute_dft_r2c(p, i, o); });
}

cufftResult cufftExecC2R(cufftHandle plan, cufftComplex* in, cufftReal* out) {
  return execute_batch(plan, CUFFT_C2R, reinterpret_cast<fftwf_complex*>(in), out, false,
                       [](fftwf_plan p, fftwf_complex* i, float* o) { fftwf_execute_dft_c2r(p, i, o); });
}

cufftResult cufftDestroy(cufftHandle plan) {
  std::lock_guard<std::mutex> guard(planner_lock());
  auto it = plans().find(plan);
  if (it == plans().end()) return CUFFT_INVALID_PLAN;
  for (auto& by_alignment : it->second.variants)
    for (fftwf_plan v : by_alignment)
      if (v != nullptr) fftwf_destroy_plan(v);
  plans().erase(it);
  return CUFFT_SUCCESS;
}
