// Intrusive red-black tree: linking, rebalancing, in-order walks and the
// augment hooks. Nothing here allocates or locks.
#include "platform/rbtree.h"

#include <utility>

static_assert(std::is_standard_layout_v<rb_node>);
static_assert(sizeof(rb_node) == 3 * sizeof(void *));
static_assert(offsetof(rb_node, rb_parent_color) == 0);
static_assert(offsetof(rb_node, rb_right) == sizeof(void *));
static_assert(offsetof(rb_node, rb_left) == 2 * sizeof(void *));
static_assert(alignof(rb_node) >= 4, "bits 0 and 1 of a node address must be free");
static_assert(sizeof(rb_root) == sizeof(void *));

namespace {

constexpr uintptr_t kColorBit = 1;
constexpr uintptr_t kLowBits = 3;

void SetBlack(rb_node *node) {
    node->rb_parent_color |= kColorBit;
}
void SetRed(rb_node *node) {
    node->rb_parent_color &= ~kColorBit;
}
// Null children count as black.
bool IsBlackOrNull(const rb_node *node) {
    return node == nullptr || rb_is_black(node);
}

void SetParent(rb_node *node, rb_node *parent) {
    node->rb_parent_color =
        (node->rb_parent_color & kLowBits) | reinterpret_cast<uintptr_t>(parent);
}

// Points the slot of `parent` (or the root word) that held `old` at `fresh`.
void ReplaceChild(rb_node *old, rb_node *fresh, rb_node *parent, rb_root *root) {
    if (parent == nullptr) {
        root->rb_node = fresh;
    } else if (parent->rb_left == old) {
        parent->rb_left = fresh;
    } else {
        parent->rb_right = fresh;
    }
}

rb_node *Leftmost(rb_node *node) {
    while (node->rb_left != nullptr) {
        node = node->rb_left;
    }
    return node;
}

rb_node *Rightmost(rb_node *node) {
    while (node->rb_right != nullptr) {
        node = node->rb_right;
    }
    return node;
}

// Insert fix-up for a red node under a red parent. `Near` is the side the
// parent hangs on below the grandparent; the mirror case swaps the members.
// `rotateNear` turns a node down towards the Near side, `rotateFar` the other way.
template <rb_node *rb_node::*Near, rb_node *rb_node::*Far>
rb_node *InsertStep(rb_node *node, rb_node *parent, rb_node *gparent, rb_root *root,
                    void (*rotateNear)(rb_node *, rb_root *),
                    void (*rotateFar)(rb_node *, rb_root *)) {
    rb_node *uncle = gparent->*Far;
    if (uncle != nullptr && rb_is_red(uncle)) {
        SetBlack(uncle);
        SetBlack(parent);
        SetRed(gparent);
        return gparent;
    }
    if (parent->*Far == node) {
        // Zig-zag: turn it into a straight line first.
        rotateNear(parent, root);
        std::swap(node, parent);
    }
    SetBlack(parent);
    SetRed(gparent);
    rotateFar(gparent, root);
    return node;
}

// One step of the erase fix-up for a doubly black `child` hanging on the
// `Near` side of `parent`. Returns the next child to look at, or the root
// when the deficit has been absorbed; `parent` is updated for the next step.
template <rb_node *rb_node::*Near, rb_node *rb_node::*Far>
rb_node *EraseStep(rb_node *child, rb_node *&parent, rb_root *root,
                   void (*rotateNear)(rb_node *, rb_root *),
                   void (*rotateFar)(rb_node *, rb_root *)) {
    rb_node *sibling = parent->*Far;
    if (sibling == nullptr) {
        // Cannot happen in a valid tree: the sibling side holds a black node.
        return root->rb_node;
    }
    if (rb_is_red(sibling)) {
        SetBlack(sibling);
        SetRed(parent);
        rotateNear(parent, root);
        sibling = parent->*Far;
    }
    if (IsBlackOrNull(sibling->rb_left) && IsBlackOrNull(sibling->rb_right)) {
        SetRed(sibling);
        child = parent;
        parent = rb_parent(child);
        return child;
    }
    if (IsBlackOrNull(sibling->*Far)) {
        SetBlack(sibling->*Near);
        SetRed(sibling);
        rotateFar(sibling, root);
        sibling = parent->*Far;
    }
    rb_set_color(sibling, rb_color(parent));
    SetBlack(parent);
    SetBlack(sibling->*Far);
    rotateNear(parent, root);
    return root->rb_node;
}

}  // namespace

extern "C" {

void rb_set_parent(rb_node *node, rb_node *parent) {
    if (node != nullptr) {
        SetParent(node, parent);
    }
}

void rb_set_color(rb_node *node, int color) {
    if (node != nullptr) {
        node->rb_parent_color = (node->rb_parent_color & ~kColorBit) | (color & kColorBit);
    }
}

void __rb_rotate_left(rb_node *node, rb_root *root) {
    if (node == nullptr || root == nullptr || node->rb_right == nullptr) {
        return;
    }
    rb_node *right = node->rb_right;
    rb_node *parent = rb_parent(node);
    node->rb_right = right->rb_left;
    if (right->rb_left != nullptr) {
        SetParent(right->rb_left, node);
    }
    right->rb_left = node;
    SetParent(right, parent);
    ReplaceChild(node, right, parent, root);
    SetParent(node, right);
}

void __rb_rotate_right(rb_node *node, rb_root *root) {
    if (node == nullptr || root == nullptr || node->rb_left == nullptr) {
        return;
    }
    rb_node *left = node->rb_left;
    rb_node *parent = rb_parent(node);
    node->rb_left = left->rb_right;
    if (left->rb_right != nullptr) {
        SetParent(left->rb_right, node);
    }
    left->rb_right = node;
    SetParent(left, parent);
    ReplaceChild(node, left, parent, root);
    SetParent(node, left);
}

void rb_link_node(rb_node *node, rb_node *parent, rb_node **link) {
    if (node == nullptr || link == nullptr) {
        return;
    }
    node->rb_parent_color = reinterpret_cast<uintptr_t>(parent);  // red
    node->rb_right = nullptr;
    node->rb_left = nullptr;
    *link = node;
}

void rb_insert_color(rb_node *node, rb_root *root) {
    if (node == nullptr || root == nullptr || root->rb_node == nullptr) {
        return;
    }
    rb_node *parent;
    while ((parent = rb_parent(node)) != nullptr && rb_is_red(parent)) {
        rb_node *gparent = rb_parent(parent);
        if (gparent == nullptr) {
            break;  // a red root: only the final recolouring is missing
        }
        if (parent == gparent->rb_left) {
            node = InsertStep<&rb_node::rb_left, &rb_node::rb_right>(
                node, parent, gparent, root, __rb_rotate_left, __rb_rotate_right);
        } else {
            node = InsertStep<&rb_node::rb_right, &rb_node::rb_left>(
                node, parent, gparent, root, __rb_rotate_right, __rb_rotate_left);
        }
    }
    SetBlack(root->rb_node);
}

void __rb_erase_color(rb_node *child, rb_node *parent, rb_root *root) {
    if (root == nullptr) {
        return;
    }
    while (IsBlackOrNull(child) && child != root->rb_node && parent != nullptr) {
        // A null child on the left is only possible when the left slot is
        // empty, because the other side must hold at least one black node.
        if (parent->rb_left == child) {
            child = EraseStep<&rb_node::rb_left, &rb_node::rb_right>(
                child, parent, root, __rb_rotate_left, __rb_rotate_right);
        } else {
            child = EraseStep<&rb_node::rb_right, &rb_node::rb_left>(
                child, parent, root, __rb_rotate_right, __rb_rotate_left);
        }
    }
    if (child != nullptr) {
        SetBlack(child);
    }
}

void rb_erase(rb_node *node, rb_root *root) {
    if (node == nullptr || root == nullptr) {
        return;
    }
    rb_node *child;
    rb_node *childParent;
    bool removedBlack;
    if (node->rb_left == nullptr || node->rb_right == nullptr) {
        child = node->rb_left != nullptr ? node->rb_left : node->rb_right;
        childParent = rb_parent(node);
        removedBlack = rb_is_black(node);
        if (child != nullptr) {
            SetParent(child, childParent);
        }
        ReplaceChild(node, child, childParent, root);
    } else {
        rb_node *successor = Leftmost(node->rb_right);
        child = successor->rb_right;
        removedBlack = rb_is_black(successor);
        if (successor == node->rb_right) {
            childParent = successor;  // child stays where it is
        } else {
            childParent = rb_parent(successor);
            childParent->rb_left = child;
            if (child != nullptr) {
                SetParent(child, childParent);
            }
            successor->rb_right = node->rb_right;
            SetParent(node->rb_right, successor);
        }
        successor->rb_left = node->rb_left;
        SetParent(node->rb_left, successor);
        rb_node *parent = rb_parent(node);
        successor->rb_parent_color = node->rb_parent_color;
        ReplaceChild(node, successor, parent, root);
    }
    if (removedBlack) {
        __rb_erase_color(child, childParent, root);
    }
}

rb_node *rb_first(const rb_root *root) {
    if (root == nullptr || root->rb_node == nullptr) {
        return nullptr;
    }
    return Leftmost(root->rb_node);
}

rb_node *rb_last(const rb_root *root) {
    if (root == nullptr || root->rb_node == nullptr) {
        return nullptr;
    }
    return Rightmost(root->rb_node);
}

rb_node *rb_next(const rb_node *node) {
    if (node == nullptr || rb_empty_node(node)) {
        return nullptr;
    }
    if (node->rb_right != nullptr) {
        return Leftmost(node->rb_right);
    }
    // Climb while we come up from a right child; the first left-child step
    // lands on the successor.
    rb_node *parent;
    while ((parent = rb_parent(node)) != nullptr && node == parent->rb_right) {
        node = parent;
    }
    return parent;
}

rb_node *rb_prev(const rb_node *node) {
    if (node == nullptr || rb_empty_node(node)) {
        return nullptr;
    }
    if (node->rb_left != nullptr) {
        return Rightmost(node->rb_left);
    }
    rb_node *parent;
    while ((parent = rb_parent(node)) != nullptr && node == parent->rb_left) {
        node = parent;
    }
    return parent;
}

void rb_replace_node(rb_node *victim, rb_node *newnode, rb_root *root) {
    if (victim == nullptr || newnode == nullptr || root == nullptr || victim == newnode) {
        return;
    }
    ReplaceChild(victim, newnode, rb_parent(victim), root);
    if (victim->rb_left != nullptr) {
        SetParent(victim->rb_left, newnode);
    }
    if (victim->rb_right != nullptr) {
        SetParent(victim->rb_right, newnode);
    }
    *newnode = *victim;
}

void rb_augment_path(rb_node *node, rb_augment_f callback, void *data) {
    if (callback == nullptr) {
        return;
    }
    // Besides the path itself, each sibling is refreshed: a rotation may
    // have moved a subtree under it.
    while (node != nullptr) {
        callback(node, data);
        rb_node *parent = rb_parent(node);
        if (parent == nullptr) {
            return;
        }
        if (node == parent->rb_left && parent->rb_right != nullptr) {
            callback(parent->rb_right, data);
        } else if (parent->rb_left != nullptr) {
            callback(parent->rb_left, data);
        }
        node = parent;
    }
}

void rb_augment_insert(rb_node *node, rb_augment_f callback, void *data) {
    if (node == nullptr) {
        return;
    }
    // Rebalancing may have given the new node children; start below it.
    if (node->rb_left != nullptr) {
        node = node->rb_left;
    } else if (node->rb_right != nullptr) {
        node = node->rb_right;
    }
    rb_augment_path(node, callback, data);
}

rb_node *rb_augment_erase_begin(rb_node *node) {
    if (node == nullptr) {
        return nullptr;
    }
    if (node->rb_left == nullptr && node->rb_right == nullptr) {
        return rb_parent(node);
    }
    if (node->rb_right == nullptr) {
        return node->rb_left;
    }
    if (node->rb_left == nullptr) {
        return node->rb_right;
    }
    rb_node *successor = Leftmost(node->rb_right);
    if (successor->rb_right != nullptr) {
        return successor->rb_right;
    }
    rb_node *successorParent = rb_parent(successor);
    return successorParent != node ? successorParent : successor;
}

void rb_augment_erase_end(rb_node *deepest, rb_augment_f callback, void *data) {
    if (deepest != nullptr) {
        rb_augment_path(deepest, callback, data);
    }
}

}  // extern "C"
