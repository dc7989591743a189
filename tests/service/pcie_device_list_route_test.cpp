// The margin device list as the browser fetches it, over the embedded machine.
#include <gtest/gtest.h>

#include "gui/model_machine.h"
#include "service/web_back_end.h"
#include "service/wire_server.h"

using nlohmann::json;

TEST(PCIEDeviceListRoute, AnswersTheListOfTheStoredMachine) {
    gui_test::ModelMachine machine;
    TestStorage storage;
    WebBackEnd backend(machine.store, storage);
    PortHall::WireApp app;
    backend.RegisterServices(app);
    const PortHall::WireRoute* route = app.find("/api/1.0/GetPCIEDeviceListForMargin", PortHall::HttpMethod::Get);
    ASSERT_NE(route, nullptr);
    PortHall::WireRequest request;
    request.path = route->path;
    const PortHall::WireResponse response = app.dispatch(*route, request);

    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.content_type, "application/json");
    const json answer = json::parse(response.body);
    ASSERT_EQ(answer.size(), 20u);  // every function of the machine with a readable link speed
    EXPECT_EQ(answer[0]["PCIeInfo"]["SBDF"], "0:0:1.0");
    EXPECT_EQ(answer[0]["SERDES"]["SERDES"], "P0");
}
