// nimbkit download: one image load connection, with its progress on
// standard error and the raw body out; and nimbkit serve: a loopback file
// server to download or fetch from.
#include <httplib.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <limits>
#include <memory>
#include <optional>
#include <string>

#include <NimbFoundation/Images/VQImageLoadConnection.h>
#include <NimbFoundation/Platform/Concurrency/RunLoop.h>
#include <NimbFoundation/Platform/Env/FileManager.h>

#include "Command.h"
#include "DisplayText.h"
#include "ImageFetch.h"
#include "Output.h"

namespace nimbkit {

namespace {

struct DownloadOptions {
  std::string url;
  std::string output;
  double timeout = nimb::VQImageLoadConnection::kDefaultTimeoutInterval;
  std::optional<std::string> maxSize;  // bytes, with an optional K, M or G suffix
  std::optional<double> maxTime;       // seconds for the whole transfer
};

// "1048576", "512K", "64M", "2G" (powers of 1024, either case) in bytes; 0
// lifts the limit. Anything else is a usage error.
std::uint64_t parseSize(const std::string& text) {
  std::uint64_t value = 0;
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, value);
  int shift = 0;
  if (ec == std::errc() && ptr + 1 == end) {
    switch (*ptr) {
      case 'k':
      case 'K':
        shift = 10;
        break;
      case 'm':
      case 'M':
        shift = 20;
        break;
      case 'g':
      case 'G':
        shift = 30;
        break;
      default:
        shift = -1;
    }
    ++ptr;
  }
  if (ec != std::errc() || ptr != end || shift < 0 || text.empty() ||
      value > (std::numeric_limits<std::uint64_t>::max() >> shift)) {
    throw UsageError("--max-size must be a number of bytes, optionally with K, M or G (got \"" +
                     text + "\")");
  }
  return value << shift;
}

int download(const DownloadOptions& o) {
  auto url = nimb::URL::withString(o.url);
  if (!url) throw UsageError("\"" + o.url + "\" is not an absolute URL");
  if (!(o.timeout > 0)) throw UsageError("--timeout must be a positive number of seconds");
  if (o.maxTime && !(*o.maxTime > 0 && std::isfinite(*o.maxTime))) {
    throw UsageError("--max-time must be a positive number of seconds");
  }
  const std::uint64_t maxSize =
      o.maxSize ? parseSize(*o.maxSize) : nimb::VQImageLoadConnection::kDefaultMaximumBodyLength;

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
    done = true;
    if (!o.output.empty()) {
      if (auto why = writeUserFile(o.output, body); !why.empty()) {
        diagnose("nimbkit: cannot write %s: %s\n", escapeForDisplay(o.output).c_str(), why.c_str());
        exitCode = kNotFound;
      }
    } else if (::isatty(STDOUT_FILENO) == 1 &&
               std::find(body.begin(), body.end(), 0) != body.end()) {
      // A picture's bytes would garble the terminal, as curl also holds.
      diagnose(
          "nimbkit: not writing %zu bytes of binary data to a terminal; use -o FILE or "
          "redirect standard output\n",
          body.size());
      exitCode = kNotFound;
    } else if (!writeStandardOutput(body) || !flushStandardOutput()) {
      exitCode = kNotFound;  // main reports the write error
    }
  };
  delegate->imageLoadConnection = [&](nimb::VQImageLoadConnection&, const nimb::Error& e) {
    std::fputc('\n', stderr);  // ends the progress line
    diagnose("nimbkit: %s (%s %ld)\n", failureText(e).c_str(), e.domain.c_str(), e.code);
    exitCode = kNotFound;
    done = true;
  };
  auto connection = nimb::VQImageLoadConnection::create(*url, delegate);
  connection->setTimeoutInterval(o.timeout);
  connection->setMaximumBodyLength(maxSize);
  if (o.maxTime) connection->setTimeoutIntervalForResource(*o.maxTime);
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
  command->add_option("--max-size", options->maxSize,
                      "Largest body accepted, in bytes or with K, M or G (default 64M; 0: "
                      "no limit)");
  command->add_option("--max-time", options->maxTime,
                      "Seconds the whole download may take (default: no limit)");
  onSelected(command, selected, [options] { return download(*options); });

  auto serveOptions = std::make_shared<ServeOptions>();
  auto* serveCmd = app.add_subcommand("serve", "Serve DIR over HTTP on 127.0.0.1");
  serveCmd->add_option("DIR", serveOptions->directory, "Directory to serve")->required();
  serveCmd->add_option("--port", serveOptions->port, "Port (0 picks a free one; default 8080)")
      ->check(CLI::Range(0, 65535));
  serveCmd->add_option("--for", serveOptions->seconds, "Stop after this many seconds");
  onSelected(serveCmd, selected, [serveOptions] { return serve(*serveOptions); });
}

}  // namespace nimbkit
