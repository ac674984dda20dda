#include <gtest/gtest.h>

#include "ClassCallback.h"
#include "GLibPtr.h"

TEST(GLibPtr, CopyMoveAndAdopt) {
    GLibPtr<JsonNode> a(json_node_new(JSON_NODE_NULL));
    ASSERT_TRUE(a);
    {
        GLibPtr<JsonNode> b = a;  // copy adds a reference
        EXPECT_EQ(a.get(), b.get());
        GLibPtr<JsonNode> c = std::move(b);  // move transfers it
        EXPECT_FALSE(b);
        EXPECT_EQ(c.get(), a.get());
    }
    // the copies are gone again, so the node holds exactly our reference
    JsonNode* raw = a.release();
    EXPECT_FALSE(a);
    json_node_unref(raw);

    GLibPtr<GObject> obj(G_OBJECT(g_object_new(G_TYPE_OBJECT, nullptr)));
    GObject* weak = obj.get();
    g_object_add_weak_pointer(weak, reinterpret_cast<gpointer*>(&weak));
    GLibPtr<GObject> copy = obj;
    obj.reset();
    EXPECT_NE(weak, nullptr);
    copy = nullptr;
    EXPECT_EQ(weak, nullptr);  // the last reference freed it
}

TEST(GLibPtr, SinksFloatingVariant) {
    GVariant* floating = g_variant_new_string("x");
    ASSERT_TRUE(g_variant_is_floating(floating));
    GLibPtr<GVariant> v(floating);
    EXPECT_FALSE(g_variant_is_floating(v.get()));
    GLibPtr<GVariant> again = GLibPtr<GVariant>::ref(v.get());
    EXPECT_STREQ(g_variant_get_string(again.get(), nullptr), "x");
}

namespace {
struct Counter {
    int hits = 0;
    int add(int n, const char* tag) {
        hits += n;
        return tag ? hits : -1;
    }
    int get() const { return hits; }
};
}  // namespace

TEST(ClassCallback, ForwardsArgumentsAndUserData) {
    Counter counter;
    auto fn = class_callback<Counter, &Counter::add>;
    EXPECT_EQ(fn(2, "a", &counter), 2);
    EXPECT_EQ(fn(3, nullptr, &counter), -1);
    EXPECT_EQ(counter.hits, 5);
    GSourceFunc source = class_callback<Counter, &Counter::get>;
    EXPECT_EQ(source(&counter), 5);
}
