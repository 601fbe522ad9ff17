// SPDX-License-Identifier: Apache-2.0
// gRPC over a Unix-domain socket: a method that takes a text and returns it.
#include <string>

#include <grpcpp/grpcpp.h>

#include "../clock.h"
#include "../harness.h"
#include "echo.grpc.pb.h"

namespace {

std::string address(const std::string &folder) {
    return "unix:" + folder + "/socket";
}

class EchoService : public bench::Echo::Service {
    grpc::Status Echo(grpc::ServerContext *, const bench::Text *request,
                      bench::Text *response) override {
        response->set_text(request->text());
        return grpc::Status::OK;
    }
};

void serve(const bench::Options &options, int readyFd) {
    EchoService service;
    grpc::ServerBuilder builder;
    builder.AddListeningPort(address(options.folder), grpc::InsecureServerCredentials());
    builder.RegisterService(&service);
    const auto server = builder.BuildAndStart();
    bench::require(server != nullptr, "serve");
    bench::reportReady(readyFd);
    server->Wait();
}

class GrpcClient : public bench::Client {
public:
    GrpcClient(const std::string &folder, std::size_t payload)
        : _stub(bench::Echo::NewStub(
              grpc::CreateChannel(address(folder), grpc::InsecureChannelCredentials()))) {
        _request.set_text(bench::text(payload));
    }

    void roundTrip() override {
        grpc::ClientContext context;
        bench::Text response;
        const grpc::Status status = _stub->Echo(&context, _request, &response);
        if (!status.ok() || response.text().size() != _request.text().size())
            bench::die("could not get the payload back: " + status.error_message());
    }

private:
    std::unique_ptr<bench::Echo::Stub> _stub;
    bench::Text _request;
};

std::unique_ptr<bench::Client> connect(const bench::Options &options) {
    return std::make_unique<GrpcClient>(options.folder, options.payload);
}

} // namespace

int main(int argc, char **argv) {
    return bench::run(argc, argv, {serve, connect});
}
