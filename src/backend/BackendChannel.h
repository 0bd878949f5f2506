// The one TLS channel to the backend. Trust: the system roots plus the PEM
// roots the token file adds. There is no insecure channel.
//
// Threads: any; channels are cached per (address, extra roots) under a lock,
// so the purchase client and the event uploader share one connection.
#pragma once

#include <grpcpp/channel.h>

#include <memory>
#include <string>

namespace velquin {

std::shared_ptr<grpc::Channel> backendChannel(const std::string& address,
                                              const std::string& extraRootCertificates);

// The system trust store as PEM text (empty when none is found).
const std::string& systemRootCertificates();

}  // namespace velquin
