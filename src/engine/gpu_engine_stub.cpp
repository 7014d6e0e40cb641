// The GPU engine in a build without CUDA: it reports that it cannot run.
#include "engine/gpu_engine.h"

namespace hmm_gpu {

namespace {
char const* const no_cuda = "this build of Ketra has no GPU engine (configure with -DKETRA_CUDA=ON)";
}

std::string unavailable_reason() { return no_cuda; }

struct Engine::Impl {};

Engine::Engine(hmm_kernel::Panel const&, hmm_kernel::Schedule const&, Outputs const&, bool, int) {
    throw gpu_error(no_cuda);
}
Engine::~Engine() = default;
void Engine::run(std::vector<int> const&, std::function<void(IndividualResult const&)> const&) {
    throw gpu_error(no_cuda);
}
std::size_t Engine::branch_offset(int) const { return 0; }
bool Engine::shared_memory_kernel() const { return false; }
int Engine::batch_size() const { return 0; }
int Engine::kept_slots() const { return 0; }

}  // namespace hmm_gpu
