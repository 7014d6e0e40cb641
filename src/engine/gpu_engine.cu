// The GPU engine: one thread block per individual runs gpu_arith's pipeline.
// Where the pair states of one SNP fit in shared memory they stay there for
// both passes; otherwise every buffer lives in global memory. Batches of
// individuals alternate between two sets of buffers and streams, so that one
// batch's transfers and results overlap the other's kernel.
#include "engine/gpu_engine.h"

#include <cuda_runtime.h>

#include <algorithm>
#include <cstring>
#include <deque>
#include <sstream>

namespace hmm_gpu {

namespace {


struct BlockTeam {
    __host__ __device__ int rank() const {
#ifdef __CUDA_ARCH__
        return static_cast<int>(threadIdx.x);
#else
        return 0;
#endif
    }
    __host__ __device__ int size() const {
#ifdef __CUDA_ARCH__
        return static_cast<int>(blockDim.x);
#else
        return 1;
#endif
    }
    __host__ __device__ void sync() const {
#ifdef __CUDA_ARCH__
        __syncthreads();
#endif
    }
    // Blocks are whole warps: groups of eight lanes, summed with shuffles.
    __host__ __device__ int lanes() const {
#ifdef __CUDA_ARCH__
        return 8;
#else
        return 1;
#endif
    }
    __host__ __device__ double lane_tree_sum(double p) const {
#ifdef __CUDA_ARCH__
        // Lane u adds lane u^1's value, then u^2's sum, then u^4's: the
        // tree ((p0 + p1) + (p2 + p3)) + ((p4 + p5) + (p6 + p7)), as
        // addition is commutative bit for bit.
        p += __shfl_xor_sync(0xffffffffu, p, 1);
        p += __shfl_xor_sync(0xffffffffu, p, 2);
        p += __shfl_xor_sync(0xffffffffu, p, 4);
#endif
        return p;
    }
};

extern __shared__ double on_chip[];

// w and out are individual 0's buffers; individual b's lie b strides further.
template <bool kShared>
__global__ void __launch_bounds__(kShared ? max_threads_shared : max_threads_global)
    individuals_kernel(gpu_arith::Plan plan, const std::uint8_t* genotypes, gpu_arith::Work w, std::size_t work_stride,
                       gpu_arith::Output out, std::size_t result_stride) {
    std::size_t const b = blockIdx.x;
    std::size_t const ws = work_stride * b, rs = result_stride * b;
    w.kept += ws;
    if (w.F) w.F += ws;
    w.B += ws;
    w.backup += ws;
    w.RS += ws;
    w.P += plan.every_posterior ? rs : ws;
    if (kShared) {
        gpu_arith::carve_on_chip(plan.K, w, on_chip);
    } else {
        w.pairs += ws;
        w.R0 += ws;
        w.R1 += ws;
        w.work += ws;
    }
    out.m += rs;
    out.branches += rs;
    out.status += b;
    gpu_arith::run_individual(BlockTeam{}, plan, genotypes + b * plan.L, w, out);
}

void check(cudaError_t e, char const* what) {
    if (e != cudaSuccess) throw gpu_error(std::string("GPU engine: ") + what + ": " + cudaGetErrorString(e));
}

template <class T>
T* device_alloc(std::size_t count, char const* what) {
    void* p = nullptr;
    check(cudaMalloc(&p, std::max<std::size_t>(1, count) * sizeof(T)), what);
    return static_cast<T*>(p);
}

template <class T>
T* pinned_alloc(std::size_t count, char const* what) {
    void* p = nullptr;
    check(cudaMallocHost(&p, std::max<std::size_t>(1, count) * sizeof(T)), what);
    return static_cast<T*>(p);
}

template <class T>
T* upload(std::vector<T> const& v, std::vector<void*>& owned) {
    T* d = device_alloc<T>(v.size(), "allocating the plan");
    owned.push_back(d);
    if (!v.empty()) check(cudaMemcpy(d, v.data(), v.size() * sizeof(T), cudaMemcpyHostToDevice), "uploading the plan");
    return d;
}

}  // namespace

std::string unavailable_reason() {
    int count = 0;
    cudaError_t const e = cudaGetDeviceCount(&count);
    if (e == cudaErrorNoDevice || (e == cudaSuccess && count == 0)) return "no CUDA device found";
    if (e == cudaErrorInsufficientDriver)
        return "no usable NVIDIA driver (missing, or older than this build's CUDA runtime)";
    if (e != cudaSuccess) return std::string("the CUDA runtime could not start (") + cudaGetErrorString(e) + ")";
    cudaDeviceProp prop;
    if (cudaGetDeviceProperties(&prop, 0) != cudaSuccess) return "the CUDA device could not be queried";
    if (prop.major < 9) {
        std::ostringstream why;
        why << "device 0 (" << prop.name << ") has compute capability " << prop.major << "." << prop.minor
            << "; this build needs 9.0 or newer";
        return why.str();
    }
    return "";
}

struct Engine::Impl {
    hmm_kernel::Panel const& panel;
    HostPlan plan;
    gpu_arith::Plan device_plan;
    std::vector<void*> owned;  // plan arrays on the device
    bool shared = false;
    std::size_t shared_bytes = 0;
    int threads = 32;
    int capacity = 1;
    std::size_t work_stride = 0, result_stride = 0;

    struct Slot {
        cudaStream_t stream = nullptr;
        std::uint8_t* genotypes = nullptr;  // device, capacity x L
        double* work = nullptr;             // device
        double* result = nullptr;           // device
        int* status = nullptr;              // device
        std::uint8_t* host_genotypes = nullptr;
        double* host_result = nullptr;
        int* host_status = nullptr;
        std::vector<int> batch;
    };
    Slot slots[2];

    Impl(hmm_kernel::Panel const& p, hmm_kernel::Schedule const& schedule, Outputs const& outputs, bool force_global,
         int kept_slots_limit)
        : panel(p), plan(p, schedule, outputs) {
        std::string const why = unavailable_reason();
        if (!why.empty()) throw gpu_error("GPU engine: " + why);
        check(cudaSetDevice(0), "selecting the device");
        cudaDeviceProp prop;
        check(cudaGetDeviceProperties(&prop, 0), "querying the device");

        // Kernel, kept forward arrays and batch size for the free memory.
        DeviceLimits limits;
        int optin = 0;
        check(cudaDeviceGetAttribute(&optin, cudaDevAttrMaxSharedMemoryPerBlockOptin, 0), "querying shared memory");
        limits.shared_per_block = static_cast<std::size_t>(optin);
        limits.multiprocessors = prop.multiProcessorCount;
        std::size_t total_bytes = 0;
        check(cudaMemGetInfo(&limits.free_bytes, &total_bytes), "querying free memory");
        LaunchPlan const launch = plan_launch(plan.shape(), limits, panel.N, force_global);
        if (!launch.refusal.empty()) throw gpu_error("GPU engine: " + launch.refusal);
        plan.set_kept_slots(kept_slots_limit > 0 ? std::min(launch.kept_slots, kept_slots_limit) : launch.kept_slots);
        shared = launch.shared;
        threads = launch.threads;
        capacity = launch.batch;
        shared_bytes = plan.shared_doubles() * sizeof(double);
        if (shared)
            check(cudaFuncSetAttribute(individuals_kernel<true>, cudaFuncAttributeMaxDynamicSharedMemorySize,
                                       static_cast<int>(shared_bytes)),
                  "reserving shared memory");

        HostPlan::Arrays const a = plan.arrays();
        HostPlan::Addresses at{};
        for (int k = 0; k < 4; ++k) at.doubles[k] = upload(*a.doubles[k], owned);
        for (int k = 0; k < 5; ++k) at.ints[k] = upload(*a.ints[k], owned);
        at.sizes = upload(*a.sizes, owned);
        at.positions = upload(*a.positions, owned);
        at.trees = upload(plan.tree_views(at.ints[3], at.sizes), owned);
        device_plan = plan.bind(at);

        work_stride = plan.work_doubles();
        result_stride = plan.result_doubles();
        std::size_t const L = static_cast<std::size_t>(plan.L());
        for (Slot& s : slots) {
            check(cudaStreamCreateWithFlags(&s.stream, cudaStreamNonBlocking), "creating a stream");
            s.genotypes = device_alloc<std::uint8_t>(capacity * L, "allocating genotypes");
            s.work = device_alloc<double>(capacity * work_stride, "allocating work buffers");
            s.result = device_alloc<double>(capacity * result_stride, "allocating results");
            s.status = device_alloc<int>(capacity, "allocating status");
            s.host_genotypes = pinned_alloc<std::uint8_t>(capacity * L, "allocating host genotypes");
            s.host_result = pinned_alloc<double>(capacity * result_stride, "allocating host results");
            s.host_status = pinned_alloc<int>(capacity, "allocating host status");
        }
    }

    ~Impl() {
        for (Slot& s : slots) {
            if (s.stream) cudaStreamSynchronize(s.stream);
            cudaFree(s.genotypes);
            cudaFree(s.work);
            cudaFree(s.result);
            cudaFree(s.status);
            cudaFreeHost(s.host_genotypes);
            cudaFreeHost(s.host_result);
            cudaFreeHost(s.host_status);
            if (s.stream) cudaStreamDestroy(s.stream);
        }
        for (void* p : owned) cudaFree(p);
    }

    void launch(Slot& s) {
        std::size_t const L = static_cast<std::size_t>(plan.L());
        int const count = static_cast<int>(s.batch.size());
        for (int b = 0; b < count; ++b)
            std::memcpy(s.host_genotypes + b * L, panel.genotypes_of(s.batch[b]), L);
        check(cudaMemcpyAsync(s.genotypes, s.host_genotypes, count * L, cudaMemcpyHostToDevice, s.stream),
              "sending genotypes");
        HostPlan::ResultView const r = plan.carve_result(s.result);
        gpu_arith::Work const w = plan.carve_work(s.work, s.result);
        gpu_arith::Output const out{r.m, r.branches, s.status};
        if (shared)
            individuals_kernel<true><<<count, threads, shared_bytes, s.stream>>>(device_plan, s.genotypes, w,
                                                                                 work_stride, out, result_stride);
        else
            individuals_kernel<false><<<count, threads, 0, s.stream>>>(device_plan, s.genotypes, w, work_stride,
                                                                       out, result_stride);
        check(cudaGetLastError(), "launching the kernel");
        check(cudaMemcpyAsync(s.host_result, s.result, count * result_stride * sizeof(double),
                              cudaMemcpyDeviceToHost, s.stream),
              "fetching results");
        check(cudaMemcpyAsync(s.host_status, s.status, count * sizeof(int), cudaMemcpyDeviceToHost, s.stream),
              "fetching status");
    }

    void drain(Slot& s, std::function<void(IndividualResult const&)> const& consume) {
        check(cudaStreamSynchronize(s.stream), "running the kernel");
        for (std::size_t b = 0; b < s.batch.size(); ++b) {
            if (s.host_status[b] != gpu_arith::status_ok)
                throw gpu_error("GPU engine: a backward total fell below the rescaling limit where no copy was kept");
            HostPlan::ResultView const r = plan.carve_result(s.host_result + b * result_stride);
            IndividualResult result;
            result.individual = s.batch[b];
            result.haplotype_probs = r.m;
            result.branches = r.branches;
            result.pair_posteriors = r.pair_posteriors;
            consume(result);
        }
        s.batch.clear();
    }
};

Engine::Engine(hmm_kernel::Panel const& panel, hmm_kernel::Schedule const& schedule, Outputs const& outputs,
               bool force_global_memory, int kept_slots_limit)
    : impl_(new Impl(panel, schedule, outputs, force_global_memory, kept_slots_limit)) {}

Engine::~Engine() = default;

void Engine::run(std::vector<int> const& individuals, std::function<void(IndividualResult const&)> const& consume) {
    Impl& e = *impl_;
    for (int n : individuals)
        if (n < 0 || n >= e.panel.N) throw gpu_error("GPU engine: individual index outside the panel");
    if (e.plan.K() == 0 || e.plan.L() == 0) {
        // Nothing to compute: the CPU pipeline leaves its buffers as they were.
        std::vector<double> zeros(e.result_stride, 0.0);
        HostPlan::ResultView const r = e.plan.carve_result(zeros.data());
        for (int n : individuals) consume({n, r.m, r.branches, r.pair_posteriors});
        return;
    }
    std::deque<int> pending;  // slots in flight, oldest first
    int next_slot = 0;
    for (std::size_t start = 0; start < individuals.size(); start += e.capacity) {
        Impl::Slot& s = e.slots[next_slot];
        if (!s.batch.empty()) {
            e.drain(s, consume);
            pending.pop_front();
        }
        std::size_t const end = std::min(individuals.size(), start + e.capacity);
        s.batch.assign(individuals.begin() + start, individuals.begin() + end);
        e.launch(s);
        pending.push_back(next_slot);
        next_slot = 1 - next_slot;
    }
    for (int slot : pending) e.drain(e.slots[slot], consume);
}

std::size_t Engine::branch_offset(int position) const { return impl_->plan.branch_offset(position); }
bool Engine::shared_memory_kernel() const { return impl_->shared; }
int Engine::batch_size() const { return impl_->capacity; }
int Engine::kept_slots() const { return impl_->plan.kept_slots(); }

}  // namespace hmm_gpu
