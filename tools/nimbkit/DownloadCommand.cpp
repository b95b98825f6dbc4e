// nimbkit download: one image load connection, with its progress on
// standard error and the raw body out; and nimbkit serve: a loopback file
// server to download or fetch from.
#include <httplib.h>

#include <cmath>
#include <cstdio>
#include <memory>
#include <string>

#include <NimbFoundation/Images/VQImageLoadConnection.h>
#include <NimbFoundation/Platform/FileManager.h>
#include <NimbFoundation/Platform/RunLoop.h>

#include "Command.h"

namespace nimbkit {

namespace {

struct DownloadOptions {
  std::string url;
  std::string output;
  double timeout = nimb::VQImageLoadConnection::kDefaultTimeoutInterval;
};

int download(const DownloadOptions& o) {
  auto url = nimb::URL::withString(o.url);
  if (!url) throw UsageError("\"" + o.url + "\" is not an absolute URL");
  if (!(o.timeout > 0)) throw UsageError("--timeout must be a positive number of seconds");

  bool done = false;
  int exitCode = kOk;
  auto delegate = std::make_shared<nimb::VQImageLoadConnectionDelegate>();
  delegate->imageLoadConnectionDidReceivePercent = [](float percent,
                                                      nimb::VQImageLoadConnection& c) {
    if (std::isfinite(percent) && percent >= 0) {
      std::fprintf(stderr, "\rreceived %zu bytes (%.0f%%)", c.responseData().size(),
                   percent * 100.0);
    } else {
      std::fprintf(stderr, "\rreceived %zu bytes", c.responseData().size());
    }
  };
  delegate->imageLoadConnectionDidFinishLoading = [&](nimb::VQImageLoadConnection& c) {
    const auto& body = c.responseData();
    std::fprintf(stderr, "\rfinished: HTTP %ld, %zu bytes\n",
                 c.response() ? c.response()->statusCode : 0L, body.size());
    if (!o.output.empty()) {
      if (!nimb::FileManager::writeAtomically(o.output, body)) {
        std::fprintf(stderr, "nimbkit: cannot write %s\n", o.output.c_str());
        exitCode = kNotFound;
      }
    } else {
      std::fwrite(body.data(), 1, body.size(), stdout);
      std::fflush(stdout);
    }
    done = true;
  };
  delegate->imageLoadConnection = [&](nimb::VQImageLoadConnection&, const nimb::Error& e) {
    std::fprintf(stderr, "\nnimbkit: %s (%s %ld)\n", e.localizedDescription().c_str(),
                 e.domain.c_str(), e.code);
    exitCode = kNotFound;
    done = true;
  };
  auto connection = nimb::VQImageLoadConnection::create(*url, delegate);
  connection->setTimeoutInterval(o.timeout);
  connection->start();
  while (!done) nimb::RunLoop::current().runOnce(1.0);
  return exitCode;
}

struct ServeOptions {
  std::string directory;
  int port = 8080;
  double seconds = 0;
};

int serve(const ServeOptions& o) {
  if (!nimb::FileManager::isDirectory(o.directory)) {
    throw UsageError("no directory at " + o.directory);
  }
  httplib::Server server;
  if (!server.set_mount_point("/", o.directory)) throw UsageError("cannot serve " + o.directory);
  int port = o.port;
  if (port == 0) {
    port = server.bind_to_any_port("127.0.0.1");
  } else if (!server.bind_to_port("127.0.0.1", port)) {
    port = -1;
  }
  if (port <= 0) throw UsageError("cannot listen on 127.0.0.1:" + std::to_string(o.port));
  std::printf("serving %s at http://127.0.0.1:%d/\n", o.directory.c_str(), port);
  std::fflush(stdout);
  std::thread stopper;
  if (o.seconds > 0) {
    stopper = std::thread([&] {
      std::this_thread::sleep_for(std::chrono::duration<double>(o.seconds));
      server.stop();
    });
  }
  server.listen_after_bind();
  if (stopper.joinable()) stopper.join();
  return kOk;
}

}  // namespace

void addDownloadCommands(CLI::App& app, Action& selected) {
  auto options = std::make_shared<DownloadOptions>();
  auto* command = app.add_subcommand(
      "download",
      "Download URL with one image load connection; progress on stderr, body to stdout");
  command->add_option("URL", options->url, "Absolute http or https URL")->required();
  command->add_option("--output,-o", options->output, "Write the body to this file");
  command->add_option("--timeout", options->timeout,
                      "Seconds without progress before giving up (default 30)");
  onSelected(command, selected, [options] { return download(*options); });

  auto serveOptions = std::make_shared<ServeOptions>();
  auto* serveCmd = app.add_subcommand("serve", "Serve DIR over HTTP on 127.0.0.1");
  serveCmd->add_option("DIR", serveOptions->directory, "Directory to serve")->required();
  serveCmd->add_option("--port", serveOptions->port, "Port (0 picks a free one; default 8080)");
  serveCmd->add_option("--for", serveOptions->seconds, "Stop after this many seconds");
  onSelected(serveCmd, selected, [serveOptions] { return serve(*serveOptions); });
}

}  // namespace nimbkit
