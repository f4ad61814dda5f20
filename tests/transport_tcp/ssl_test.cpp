// ssl_t against an in-memory OpenSSL server (the TLS 1.3 refusal is in peers_test.cpp).
#include <gtest/gtest.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <string>

#include "tcp_test_util.h"
#include "vesk/utils/iobuffer.h"

namespace vesk::test {
namespace {

using vesk::encoder::internal::ssl_t;
using vesk::utils::IOBuffer;

// The server end: an SSL object over two memory BIOs.
class MemoryServer {
 public:
  MemoryServer() {
    SSL_CTX_use_certificate_file(ctx_, TestCert().cert.c_str(), SSL_FILETYPE_PEM);
    SSL_CTX_use_PrivateKey_file(ctx_, TestCert().key.c_str(), SSL_FILETYPE_PEM);
    ssl_ = SSL_new(ctx_);
    SSL_set_bio(ssl_, in_, out_);
    SSL_set_accept_state(ssl_);
  }
  ~MemoryServer() {
    SSL_free(ssl_);
    SSL_CTX_free(ctx_);
  }

  // Takes the client's bytes, advances and returns what the server sends.
  void Exchange(IOBuffer& fromClient, IOBuffer& toClient) {
    if (fromClient.GetAvailable() > 0) BIO_write(in_, fromClient.GetPointer(), (int)fromClient.GetAvailable());
    fromClient.IgnoreAll();
    if (!SSL_is_init_finished(ssl_)) SSL_do_handshake(ssl_);
    Drain(toClient);
  }
  void Drain(IOBuffer& toClient) {
    char chunk[16384];
    for (int n; (n = BIO_read(out_, chunk, sizeof(chunk))) > 0;) toClient.ReadFromBuffer((const uint8_t*)chunk, (uint32_t)n);
  }
  std::string ReadAll() {
    std::string text(200000, 0);
    size_t n = 0, got = 0;
    while (SSL_read_ex(ssl_, &text[n], text.size() - n, &got) == 1) n += got;
    return text.substr(0, n);
  }
  SSL* ssl() { return ssl_; }

 private:
  SSL_CTX* ctx_ = SSL_CTX_new(TLS_server_method());
  SSL* ssl_;
  BIO *in_ = BIO_new(BIO_s_mem()), *out_ = BIO_new(BIO_s_mem());
};

// Runs the handshake to its end: true when both sides finished.
bool Handshake(ssl_t& client, MemoryServer& server) {
  IOBuffer toServer, toClient;
  for (int round = 0; round < 10; round++) {
    if (client.doHandshake(toClient, toServer) != 0) return false;
    server.Exchange(toServer, toClient);
    if (client.handshakeDone && SSL_is_init_finished(server.ssl())) return true;
  }
  return false;
}

std::string Text(IOBuffer& buffer) {
  return std::string((const char*)buffer.GetPointer(), buffer.GetAvailable());
}

TEST(SslLayer, EncryptAndDecryptOverMemoryBuffers) {
  ASSERT_TRUE(TestCert().ok);
  LogCapture log;
  ssl_t client;
  ASSERT_EQ(0, client.init());

  // Nothing can be encrypted or decrypted before the handshake.
  IOBuffer plain, wire;
  plain.ReadFromString("early");
  EXPECT_EQ(-1, client.doEncrypt(plain, wire));
  EXPECT_EQ(0u, wire.GetAvailable());
  EXPECT_TRUE(log.Contains(" - SSL encrypt failed due to incorrect internal state"));
  EXPECT_EQ(-1, client.doDecrypt(wire, plain));
  EXPECT_TRUE(log.Contains(" - SSL decrypt failed due to incorrect internal state"));

  MemoryServer server;
  ASSERT_TRUE(Handshake(client, server));
  EXPECT_EQ(TLS1_2_VERSION, SSL_version(server.ssl()));

  // Once complete, the handshake call does nothing.
  IOBuffer in, out;
  in.ReadFromString("ignored");
  EXPECT_EQ(0, client.doHandshake(in, out));
  EXPECT_EQ(0u, out.GetAvailable());

  // Client to server: more than one record.
  std::string message(100000, 'x');
  for (size_t i = 0; i < message.size(); i += 7) message[i] = (char)('a' + i % 26);
  plain.IgnoreAll();
  plain.ReadFromString(message);
  ASSERT_EQ(0, client.doEncrypt(plain, wire));
  EXPECT_EQ(0u, plain.GetAvailable());
  IOBuffer none;
  server.Exchange(wire, none);
  EXPECT_EQ(message, server.ReadAll());

  // Server to client, cut inside the last record: the complete records come
  // out, the rest when its bytes arrive.
  std::string reply = "abc" + std::string(20000, 'r');
  ASSERT_EQ(3, SSL_write(server.ssl(), reply.data(), 3));
  ASSERT_EQ(20000, SSL_write(server.ssl(), reply.data() + 3, 20000));
  IOBuffer records;
  server.Drain(records);
  ASSERT_GT(records.GetAvailable(), 10u);
  IOBuffer head, tail, received;
  head.ReadFromBuffer(records.GetPointer(), records.GetAvailable() - 10);
  tail.ReadFromBuffer(records.GetPointer() + records.GetAvailable() - 10, 10);
  ASSERT_EQ(0, client.doDecrypt(head, received));
  EXPECT_EQ(3u + 16384u, received.GetAvailable());  // "abc" and one full record
  ASSERT_EQ(0, client.doDecrypt(tail, received));
  EXPECT_EQ(reply, Text(received));

  // The peer's close notify ends the connection.
  SSL_shutdown(server.ssl());
  IOBuffer closing;
  server.Drain(closing);
  received.IgnoreAll();
  EXPECT_EQ(-1, client.doDecrypt(closing, received));
  EXPECT_TRUE(log.Contains(
      " - SSL decrypt failed due to SSL_read error. readResult: 0; readError: 6"));

  // Closed: every call reports the wrong state.
  client.close();
  EXPECT_EQ(-1, client.doHandshake(in, out));
  EXPECT_TRUE(log.Contains(" - SSL handshake failed due to incorrect internal state"));
}

}  // namespace
}  // namespace vesk::test
