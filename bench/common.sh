# Shared by the benchmark scripts: the Release build and the simulated micrograph sets.
# Source it after setting backend (cpu or cuda) and out (an absolute folder).

# bench_build [EXTRA_TARGET...]: builds the picker and the simulator in Release with the step
# timers; sets build, picker, simulate, fft_flags and fft_libs.
bench_build() {
  if [ "$backend" = cuda ]; then
    build="build-bench-cuda"
    cmake -S . -B "$build" -DPICKORA_CUDA=ON -DPICKORA_TESTS=OFF -DCMAKE_BUILD_TYPE=Release \
      -DCMAKE_CUDA_ARCHITECTURES="${PICKORA_CUDA_ARCHS:-90}" -DCMAKE_CXX_FLAGS=-DPICKORA_STEP_TIMES=1 >"$out/cmake.log"
    targets=(pickora-cuda pickora-simulate "$@")
    picker=$build/bin/pickora-cuda
    local cuda_home=${CUDA_HOME:-/usr/local/cuda}
    fft_flags=(-DPICKORA_BACKEND_CUDA=1 -I"$cuda_home/include")
    fft_libs=("$build/libpickora_cuda.a" -L"$cuda_home/lib64" -lcufft -lcudart)
  else
    build="build-bench"
    cmake -S . -B "$build" -DPICKORA_CUDA=OFF -DPICKORA_TESTS=OFF -DCMAKE_BUILD_TYPE=Release \
      -DCMAKE_CXX_FLAGS=-DPICKORA_STEP_TIMES=1 >"$out/cmake.log"
    targets=(pickora pickora-simulate "$@")
    picker=$build/bin/pickora
    fft_flags=(-DPICKORA_BACKEND_CUDA=0 -Isrc/host_device/include)
    # shellcheck disable=SC2207
    fft_libs=("$build/libpickora_cpu.a" $(pkg-config --libs fftw3f) -lfftw3f_omp)
  fi
  cmake --build "$build" -j"$(getconf _NPROCESSORS_ONLN)" --target "${targets[@]}" >"$out/build.log" 2>&1 ||
    { tail -30 "$out/build.log"; exit 1; }
  simulate=$build/bin/pickora-simulate
}

# Micrographs at 1.5 A per pixel with particles of 150 A; templates at the same pixel size.
apix=1.5
diameter=150
# sim_set NAME ARGS...: the set in $out/data/NAME, made again only when its arguments change.
sim_set() {
  local name=$1; shift
  local dir=$out/data/$name args="--apix $apix --diameter $diameter --seed 1 $*"
  if [ ! -f "$dir/stamp" ] || [ "$(cat "$dir/stamp")" != "$args" ]; then
    rm -rf "$dir"
    # shellcheck disable=SC2086
    "$simulate" --out "$dir" $args >"$out/sim_$name.log"
    echo "$args" >"$dir/stamp"
  fi
}

# bench_sets BIG_N SMALL_N: the micrograph sets of the benchmark's main cases.
bench_sets() {
  sim_set s4096_t8 --size 4096 --templates 8 --n "$1"
  sim_set s3838_t8 --nx 3838 --ny 3710 --templates 8 --n "$1"
  sim_set s1024_t8 --size 1024 --templates 8 --n "$2"
}
