// The four peer senders deliver one datagram each to their service's loopback port.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "am_test_env.h"
#include "qb_peer_send.h"

TEST(QbPeerSend, EachSenderReachesItsPort) {
  if (!am_test::have_netns()) GTEST_SKIP() << "needs root and network namespaces (fixed ports)";
  am_test::NetNs ns;
  ASSERT_TRUE(ns.ok());
  const int rc = ns.run([] {
    struct Peer {
      int (*send)(const void*, int);
      int port;
    };
    const Peer peers[] = {
        {qb_cmd_send_to_it6621, 8382},
        {qb_cmd_send_to_it6620, 8380},
        {qb_cmd_send_to_avp, 9991},
        {qb_cmd_send_to_mdin, 8370},
    };
    int code = 1;
    for (const Peer& p : peers) {
      am_test::UdpReceiver rx(p.port);
      if (!rx.ok()) return code;
      const std::string text = "switch audio";
      if (p.send(text.data(), static_cast<int>(text.size())) != 0) return code + 10;
      std::vector<uint8_t> got;
      if (!rx.receive(&got, 2000) || std::string(got.begin(), got.end()) != text) return code + 20;
      ++code;
    }
    // Nothing to send is refused.
    return qb_cmd_send_to_avp("x", 0) == -1 ? 0 : 99;
  });
  EXPECT_EQ(rc, 0);
}
