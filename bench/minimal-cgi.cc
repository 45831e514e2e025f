// The floor of the process-per-request model: a dynamically linked C++ CGI
// program that answers a fixed JSON envelope.
#include <cstdio>
#include <string>

int main() {
  const std::string body = R"({"success":true})";
  printf("Content-Type: application/json; charset=utf-8\r\n\r\n%s", body.c_str());
  return 0;
}
