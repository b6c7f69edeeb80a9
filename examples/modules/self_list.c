/* SPDX-License-Identifier: MIT */
/* Keeps jobs in a list, and removes every other one while walking it. */
#include <common/self_list.h>
#include <common/self_log.h>

#include <stdio.h>

eLogLevl gLogLevl = LOG_LEV_ERROR;

struct job {
    list_head node; /* first, so that its address is the job's */
    int number;
};

int main(void)
{
    static struct job jobs[6];
    list_head todo = LIST_HEAD_INIT(todo), *pos, *ahead;

    for (int i = 0; i < 6; i++) {
        jobs[i].number = i + 1;
        list_add_tail(&jobs[i].node, &todo);
    }
    list_for_each_safe(pos, ahead, &todo)
    {
        if (((struct job *)pos)->number % 2 == 0)
            list_del_init(pos);
    }
    list_for_each_safe(pos, ahead, &todo)
    {
        printf("job %d\n", ((struct job *)pos)->number);
        list_del_init(pos);
    }
    return list_empty(&todo) ? 0 : 1;
}
