#include "agent/Sha256.h"

#include <gtest/gtest.h>

#include <string>

TEST(Sha256Test, EmptyInputHasTheKnownDigest) {
    EXPECT_EQ("e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855", Sha256::hex(""));
}

TEST(Sha256Test, AbcHasTheKnownDigest) {
    EXPECT_EQ("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad",
              Sha256::hex("abc"));
}

TEST(Sha256Test, InputsAroundTheBlockSizeHaveTheKnownDigests) {
    EXPECT_EQ("9f4390f8d30c2dd92ec9f095b65e2b9ae9b0a925a5258e241c9f1e910f734318",
              Sha256::hex(std::string(55, 'a')));
    EXPECT_EQ("b35439a4ac6f0948b6d6f9e3c6af0f5f590ce20f1bde7090ef7970686ec6738a",
              Sha256::hex(std::string(56, 'a')));
    EXPECT_EQ("ffe054fe7ae0cb6dc65c3af9b61d5209f439851db43d0ba5997337df154668eb",
              Sha256::hex(std::string(64, 'a')));
}
