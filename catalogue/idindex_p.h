#pragma once

// Private to the library: a hash set kept beside a list of dish ids, so that asking whether the
// list holds an id does not walk the list (a menu of 10,000 dishes asks once per dish).

#include <QList>
#include <QSet>

namespace kelo_catalogue {

/// Mirrors the ids of one QList<int> that only ever grows by append(). If the list was changed
/// behind the index's back (its length differs from what the index has seen), the index is
/// rebuilt from the list before it answers, so it never answers differently from the list.
class IdIndex
{
public:
    /// Whether @p list holds @p id.
    bool contains(const QList<int>& list, int id)
    {
        follow(list);
        return ids.contains(id);
    }
    /// Appends @p id to @p list and to the index.
    void append(QList<int>& list, int id)
    {
        follow(list);
        list.append(id);
        ids.insert(id);
        ++seen;
    }

private:
    void follow(const QList<int>& list)
    {
        if (seen == list.size())
            return;
        ids.clear();
        ids.reserve(list.size());
        for (const int id : list)
            ids.insert(id);
        seen = list.size();
    }

    QSet<int> ids;
    qsizetype seen = 0; ///< the length of the list that the index holds
};

} // namespace kelo_catalogue
