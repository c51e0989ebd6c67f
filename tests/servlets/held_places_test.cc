// Servlets that hold the place of what is not there yet answer every request alike.
#include <gtest/gtest.h>

#include "servlets/index_servlet.h"
#include "servlets/remote_servlet.h"
#include "servlets/varnox_servlet.h"

namespace {

void expectNotFound(Servlet& servlet) {
  for (const Method method : {Method::get, Method::head, Method::post, Method::put}) {
    Request request(false, false);
    Response response;
    request.method = method;
    servlet.doMethod(request, response);
    EXPECT_EQ(response.status, 404);
    EXPECT_TRUE(response.answered());
  }
}

TEST(HeldPlacesTest, AnswerNotFound) {
  IndexServlet index;
  expectNotFound(index);
  VarnoxServlet varnox;
  expectNotFound(varnox);
  RemoteServlet remote({63, 15});
  expectNotFound(remote);
  EXPECT_EQ(remote.target(), (std::vector<std::uint32_t>{63, 15}));
}

}  // namespace
