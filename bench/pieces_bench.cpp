// SPDX-License-Identifier: Apache-2.0
// What the pieces of a round trip cost by themselves, each for payloads of several sizes.
#include <cstdint>
#include <cstdlib>
#include <string>

#include <benchmark/benchmark.h>
#include <host/sim.h>

#include "client/envelope.h"
#include "nelvo_impl.h"
#include "response.h"

namespace {

using nelvo::client::BundlePtr;

const char *const MANIFEST =
    R"(<manifest package="bench.app"><ui-application appid="bench.app"><metadata )"
    R"(key="http://developer.tizen.org/tizen/metadata/nelvo/sdk/version" value="1.0"/>)"
    R"(</ui-application></manifest>)";

std::string payload(const benchmark::State &state) {
    return std::string(static_cast<std::size_t>(state.range(0)), 'x');
}

BundlePtr makeRequest(const benchmark::State &state) {
    return nelvo::client::makeRequest({"echo", 1, std::nullopt, payload(state)});
}

void makesABundle(benchmark::State &state) {
    const nelvo::client::Request request{"echo", 1, std::nullopt, payload(state)};
    for (auto _ : state)
        benchmark::DoNotOptimize(nelvo::client::makeRequest(request));
}

void writesAndReadsAParcel(benchmark::State &state) {
    const BundlePtr request = makeRequest(state);
    for (auto _ : state) {
        rpc_port_parcel_h parcel = nullptr;
        bundle *read = nullptr;
        rpc_port_parcel_create(&parcel);
        rpc_port_parcel_write_bundle(parcel, request.get());
        if (rpc_port_parcel_read_bundle(parcel, &read) != RPC_PORT_ERROR_NONE)
            state.SkipWithError("the bundle can't be read");
        bundle_free(read);
        rpc_port_parcel_destroy(parcel);
    }
}

// From the request to the application's callback, which leaves it pending.
void dispatchesARequest(benchmark::State &state) {
    const BundlePtr request = makeRequest(state);
    std::int64_t called = 0;
    const auto count = [](void *, bundle *, void *data) { ++*static_cast<std::int64_t *>(data); };
    nelvo_set_action_execution_cb("echo", count, &called);
    for (auto _ : state)
        nelvo::NelvoImpl::getInstance()->executeRequest("bench.client", request.get());
    if (called != state.iterations())
        state.SkipWithError("the application was not called");
}

void makesAResponse(benchmark::State &state) {
    const std::string result = payload(state);
    for (auto _ : state) {
        bundle *response = nelvo::createSuccessResponse("result", result);
        if (!response)
            state.SkipWithError("there is no response");
        bundle_free(response);
    }
}

BENCHMARK(makesABundle)->Arg(200)->Arg(65536);
BENCHMARK(writesAndReadsAParcel)->Arg(200)->Arg(65536);
BENCHMARK(dispatchesARequest)->Arg(200)->Arg(65536);
BENCHMARK(makesAResponse)->Arg(200)->Arg(65536);

} // namespace

int main(int argc, char **argv) {
    host_sim_start();
    host_sim_set_manifest(MANIFEST);
    if (nelvo_initialize() != NELVO_ERROR_NONE)
        return 1;
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    nelvo_deinitialize();
}
