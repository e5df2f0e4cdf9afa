"""The marks: for every piece what it is measured in, which peer is "must" and what is "good". This
is the one place for them; bench/README.md tells how to read them.

A mark is (peer, factor): no worse than `factor` times the peer of the same run, or an absolute
value (None, value); None alone where a piece has a floor to be seen beside and no mark. "less" says
that less is better.
"""

MARKS = (
    # Piece, unit, less or more is better, ours, peers, floor, must, good
    ("selector, pair, 1 idle", "k trips/s", "more", "turns/selector/tcp:0/idle:1",
     {"libevent": "turns/libevent/tcp:0/idle:1", "libuv": "turns/libuv/tcp:0/idle:1"},
     "turns/epoll/tcp:0/idle:1", ("libevent", 1.0), ("floor", 0.95)),
    ("selector, pair, 10 idle", "k trips/s", "more", "turns/selector/tcp:0/idle:10",
     {"libevent": "turns/libevent/tcp:0/idle:10", "libuv": "turns/libuv/tcp:0/idle:10"},
     "turns/epoll/tcp:0/idle:10", ("libevent", 1.0), ("floor", 0.95)),
    ("selector, pair, 100 idle", "k trips/s", "more", "turns/selector/tcp:0/idle:100",
     {"libevent": "turns/libevent/tcp:0/idle:100", "libuv": "turns/libuv/tcp:0/idle:100"},
     "turns/epoll/tcp:0/idle:100", ("libevent", 1.0), ("floor", 0.95)),
    ("selector, 100 idle beside 1", "k trips/s", "more", "turns/selector/tcp:0/idle:100",
     {"1 idle": "turns/selector/tcp:0/idle:1"}, None, ("1 idle", 0.9), ("1 idle", 0.95)),
    ("selector, TCP, 1 idle", "k trips/s", "more", "turns/selector/tcp:1/idle:1",
     {"libevent": "turns/libevent/tcp:1/idle:1", "libuv": "turns/libuv/tcp:1/idle:1"},
     "turns/epoll/tcp:1/idle:1", ("libevent", 1.0), ("floor", 0.95)),
    ("selector, TCP, 10 idle", "k trips/s", "more", "turns/selector/tcp:1/idle:10",
     {"libevent": "turns/libevent/tcp:1/idle:10", "libuv": "turns/libuv/tcp:1/idle:10"},
     "turns/epoll/tcp:1/idle:10", ("libevent", 1.0), ("floor", 0.95)),
    ("selector, TCP, 100 idle", "k trips/s", "more", "turns/selector/tcp:1/idle:100",
     {"libevent": "turns/libevent/tcp:1/idle:100", "libuv": "turns/libuv/tcp:1/idle:100"},
     "turns/epoll/tcp:1/idle:100", ("libevent", 1.0), ("floor", 0.95)),
    ("wake and back", "us", "less", "wake/selector", {"uv_async": "wake/uv_async"},
     "wake/eventfd", ("uv_async", 1.0), ("floor", 1.1)),
    ("log line, 1 thread", "us", "less", "log/service_log/threads:1",
     {"spdlog": "log/spdlog/threads:1"}, "log/shared_mutex/threads:1", (None, 3.5), (None, 2.5)),
    ("log line, 4 threads", "us", "less", "log/service_log/threads:4",
     {"spdlog": "log/spdlog/threads:4"}, "log/shared_mutex/threads:4", (None, 3.5), (None, 2.5)),
    *(("property name, 1 of %d" % count, "ns", "less", "name/ours/of:%d" % count,
       {"map": "name/map/of:%d" % count, "map, from a text": "name/map_from_text/of:%d" % count},
       None, ("map, from a text", 1.0), ("map", 1.0)) for count in (5, 32, 200)),
    ("relay, one way", "MB/s", "more", "relay/service/tput",
     {"socat": "relay/socat/tput", "nginx": "relay/nginx/tput", "haproxy": "relay/haproxy/tput"},
     "relay/floor/tput", ("socat", 1.0), ("floor", 1 / 1.15)),
    ("relay, 64-byte trip", "us", "less", "relay/service/rtt",
     {"socat": "relay/socat/rtt", "nginx": "relay/nginx/rtt", "haproxy": "relay/haproxy/rtt"},
     "relay/floor/rtt", ("socat", 1.0), ("floor", 1.15)),
    ("relay, 128 KiB trip", "us", "less", "relay/service/chunk",
     {"socat": "relay/socat/chunk", "nginx": "relay/nginx/chunk",
      "haproxy": "relay/haproxy/chunk"},
     "relay/floor/chunk", ("socat", 1.0), ("floor", 1.15)),
    ("KVM relay, one way", "MB/s", "more", "relay/kvm/tput",
     {"socat": "relay/socat/tput", "nginx": "relay/nginx/tput", "haproxy": "relay/haproxy/tput"},
     "relay/floor/tput", ("socat", 1.0), ("floor", 1 / 1.15)),
    ("KVM relay, 64-byte trip", "us", "less", "relay/kvm/rtt",
     {"socat": "relay/socat/rtt", "nginx": "relay/nginx/rtt", "haproxy": "relay/haproxy/rtt"},
     "relay/floor/rtt", ("socat", 1.0), ("floor", 1.15)),
    ("KVM relay, pictures down", "MB/s", "more", "relay/kvm/down",
     {"socat": "relay/socat/down", "nginx": "relay/nginx/down", "haproxy": "relay/haproxy/down"},
     "relay/floor/down", ("socat", 1.0), ("floor", 1 / 1.15)),
    *(("keys, " + kind, "M entries/s", "more", "keys/translation/" + kind, {},
       "keys/hash_map/" + kind, None, None)
      for kind in ("letters", "capitals", "missing", "control")),
    *(("%s to the agent, %s" % (kind, words), unit, better, "pump/%s" % (ours % kind), {},
       "pump/%s" % (floor % kind), None, None)
      for kind in ("keys", "pointer")
      for words, unit, better, ours, floor in (
          ("median", "us", "less", "latency/%s/p50_us", "latency_plain/%s/p50_us"),
          ("99th percentile", "us", "less", "latency/%s/p99_us", "latency_plain/%s/p99_us"),
          ("sustained", "k events/s", "more", "sustained/%s", "sustained_plain/%s"))),
)
