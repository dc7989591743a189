// plot_eye -inputjson METADATA.json [-scale 2]
#include <iostream>
#include <string>

#include "eye_plot.h"

int main(int argc, char** argv) {
    std::string error_text;
    int code = EyePlot::run(argc, argv, error_text);
    if (code != 0) std::cerr << "plot_eye: " << error_text << '\n';
    return code;
}
