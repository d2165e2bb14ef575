/* The least that a first token costs with libcurl and OpenSSL: the service's HTTP exchanges, each with a handle of its
   own, and its RSA operations, and nothing else.

     bare_token KEY CERTIFICATE DISCOVERY_URL OPENID_CONFIGURATION_URL TOKEN_URL    prints the token
     bare_token --anew KEY ...    the same; reads the key for each block and for the signature, keeping none in memory
     bare_token --wait KEY CERTIFICATE URL    one request and one signature; says "ready", waits for its input's end */
#include <curl/curl.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { BLOCK_SIZE = 256, LARGEST_BODY = 65536 };

struct body {
  size_t length;
  char text[LARGEST_BODY];
};

static void require(int holds, const char* what) {
  if (!holds) {
    fprintf(stderr, "bare_token: failed: %s\n", what);
    exit(1);
  }
}

static size_t append(char* data, size_t size, size_t count, void* target) {
  struct body* body = target;
  const size_t length = size * count;
  if (length >= sizeof body->text - body->length) {
    return 0;
  }
  memcpy(body->text + body->length, data, length);
  body->length += length;
  body->text[body->length] = '\0';
  return length;
}

/* A form makes it a POST. */
static void request(const char* url, const char* form, struct body* body) {
  CURL* handle = curl_easy_init();
  require(handle != NULL, "curl_easy_init");
  body->length = 0;
  curl_easy_setopt(handle, CURLOPT_URL, url);
  curl_easy_setopt(handle, CURLOPT_FAILONERROR, 1L);
  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, append);
  curl_easy_setopt(handle, CURLOPT_WRITEDATA, body);
  if (form != NULL) {
    curl_easy_setopt(handle, CURLOPT_POSTFIELDS, form);
  }
  const CURLcode code = curl_easy_perform(handle);
  require(code == CURLE_OK, curl_easy_strerror(code));
  curl_easy_cleanup(handle);
}

/* Ends the text at the quote behind the member's value and returns where the value begins. */
static char* member(struct body* body, const char* name) {
  char* value = strstr(body->text, name);
  require(value != NULL, name);
  value = strchr(value + strlen(name) + 1, '"');
  require(value != NULL, name);
  char* end = strchr(++value, '"');
  require(end != NULL, name);
  *end = '\0';
  return value;
}

static FILE* open_file(const char* path) {
  FILE* file = fopen(path, "r");
  require(file != NULL, path);
  return file;
}

static EVP_PKEY* read_key(const char* path) {
  FILE* file = open_file(path);
  EVP_PKEY* key = PEM_read_PrivateKey(file, NULL, NULL, NULL);
  fclose(file);
  require(key != NULL, "PEM_read_PrivateKey");
  return key;
}

static void read_certificate(const char* path) {
  FILE* file = open_file(path);
  X509* certificate = PEM_read_X509(file, NULL, NULL, NULL);
  fclose(file);
  require(certificate != NULL, "PEM_read_X509");
  EVP_PKEY* key = X509_get_pubkey(certificate);
  require(key != NULL, "X509_get_pubkey");
  EVP_PKEY_free(key);
  X509_free(certificate);
}

static void decrypt_block(EVP_PKEY* key, const unsigned char* block) {
  unsigned char plain[BLOCK_SIZE];
  size_t plain_length = sizeof plain;
  EVP_PKEY_CTX* context = EVP_PKEY_CTX_new(key, NULL);
  require(context != NULL && EVP_PKEY_decrypt_init(context) > 0 &&
              EVP_PKEY_CTX_set_rsa_padding(context, RSA_PKCS1_OAEP_PADDING) > 0 &&
              EVP_PKEY_decrypt(context, plain, &plain_length, block, BLOCK_SIZE) > 0,
          "EVP_PKEY_decrypt");
  EVP_PKEY_CTX_free(context);
}

static void decrypt(EVP_PKEY** key, const char* key_path, int anew, const char* base64) {
  static unsigned char blocks[LARGEST_BODY];
  const int length = EVP_DecodeBlock(blocks, (const unsigned char*)base64, (int)strlen(base64));
  require(length >= BLOCK_SIZE, "EVP_DecodeBlock");
  /* The decoded length counts the padding of base64 as bytes, which are fewer than a block. */
  for (int offset = 0; offset + BLOCK_SIZE <= length; offset += BLOCK_SIZE) {
    decrypt_block(*key, blocks + offset);
    if (anew) { /* for the next block, or for the signature */
      EVP_PKEY_free(*key);
      *key = read_key(key_path);
    }
  }
}

/* The token request, with an assertion that is signed but not new. */
static void write_form(EVP_PKEY* key, char* form, size_t size) {
  static const char SIGNED[] =
      "eyJ0eXAiOiJKV1QiLCJhbGciOiJSUzI1NiJ9."
      "eyJhdWQiOiJodHRwczovLzEyNy4wLjAuMTo1MDA1Ni90b2tlbiIsImV4cCI6MTc5MDAwMDMwMCwiaWF0IjoxNzkwMDAwMDAwLCJpc3MiOiJk"
      "ZXZpY2UtMDAwMSIsImp0aSI6IjZmYTQ1OWVhLWVlOGEtNGNhNC04OTRlLWRiNzdlMTYwMzU1ZSIsIm5iZiI6MTc5MDAwMDAwMCwic3ViIjoi"
      "ZGV2aWNlLTAwMDEifQ";
  unsigned char signature[BLOCK_SIZE];
  unsigned char base64[2 * BLOCK_SIZE];
  size_t length = sizeof signature;
  EVP_MD_CTX* context = EVP_MD_CTX_new();
  require(context != NULL && EVP_DigestSignInit(context, NULL, EVP_sha256(), NULL, key) > 0 &&
              EVP_DigestSign(context, signature, &length, (const unsigned char*)SIGNED, sizeof SIGNED - 1) > 0,
          "EVP_DigestSign");
  EVP_MD_CTX_free(context);
  EVP_EncodeBlock(base64, signature, (int)length);
  snprintf(form, size,
           "grant_type=client_credentials&scope=telemetry"
           "&client_assertion_type=urn:ietf:params:oauth:client-assertion-type:jwt-bearer&client_assertion=%s.%s",
           SIGNED, (char*)base64);
}

int main(int count, char** arguments) {
  static struct body body;
  char form[2048];
  const int wait = count == 5 && strcmp(arguments[1], "--wait") == 0;
  const int anew = count == 7 && strcmp(arguments[1], "--anew") == 0;
  require(wait || anew || count == 6, "arguments");
  arguments += wait || anew ? 2 : 1;
  curl_global_init(CURL_GLOBAL_ALL);
  EVP_PKEY* key = read_key(arguments[0]);
  read_certificate(arguments[1]);
  request(arguments[2], NULL, &body);
  if (wait) {
    write_form(key, form, sizeof form);
    puts("ready");
    fflush(stdout);
    getchar();
    return 0;
  }
  decrypt(&key, arguments[0], anew, member(&body, "\"data\""));
  request(arguments[3], NULL, &body);
  write_form(key, form, sizeof form);
  request(arguments[4], form, &body);
  puts(member(&body, "\"access_token\""));
  fflush(stdout);
  EVP_PKEY_free(key);
  curl_global_cleanup();
  return 0;
}
